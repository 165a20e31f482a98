#ifndef TESTS_HOST_MTF_FIXTURE_TREE_H
#define TESTS_HOST_MTF_FIXTURE_TREE_H

#include <map>
#include <string>

// The tree the fixture sets hold: stream path -> contents.
inline std::map<std::string, std::string> fixture_tree()
{
  std::string blob;
  for (int i = 0; i < 3000; ++i)
    blob.push_back(static_cast<char>((i * 7) % 251));
  return {{"/data/blob.bin", blob},
          {"/data/docs/Gr\xC3\xBC\xC3\x9F"
           "e.txt",
           "non-ASCII name\n"},
          {"/data/docs/empty", ""},
          {"/data/docs/readme.txt", "MTF fixture readme\n"}};
}

#endif
