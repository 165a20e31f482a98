#ifndef HOST_MTF_MTF_FS_H
#define HOST_MTF_MTF_FS_H

#include <string>
#include <vector>

// Path helpers of the streams. Paths are texts with one separator character.
namespace MTF_FS
{
// Length of the directory part of `path` (the text before its last separator,
// ignoring trailing separators), or std::string::npos when it has none. `len` is
// the path's length, or -1 for strlen. "/a/b" gives 2; "/a" gives 0 ("" is the
// root's directory part, the separator itself is not included); "a" gives npos.
size_t dirname(const char* path, int len, char sep);

// The last component ("/a/b/" gives "b").
std::string basename(const std::string& path, char sep);

// `dir` and `name` with exactly one separator between them.
std::string join(const std::string& dir, const std::string& name, char sep);

// The non-empty components.
std::vector<std::string> split(const std::string& path, char sep);

// The path without trailing separators ("/" stays "/").
std::string normalize(const std::string& path, char sep);
}  // namespace MTF_FS

#endif
