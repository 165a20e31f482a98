#ifndef TESTS_HOST_JOB_TEMP_DIR_H
#define TESTS_HOST_JOB_TEMP_DIR_H

#include <cstdlib>
#include <string>

// A fresh folder under /tmp, removed with its contents at the end of the scope.
class Temp_Dir
{
public:
  Temp_Dir()
  {
    char pattern[] = "/tmp/exo_test_XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~Temp_Dir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  const std::string& path() const { return path_; }

private:
  std::string path_;
};

#endif
