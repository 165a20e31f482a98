#ifndef HOST_STORAGE_OBJECT_DIRECTORY_H
#define HOST_STORAGE_OBJECT_DIRECTORY_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

class Object_Writer;

// A pool's objects as files under one root directory: object "a/b" is the file
// root/a/b. Temporaries being written live in root/.~tmp/ (same file system, so
// that a finished object is renamed into place); names are checked with
// is_valid_storage_name, so no object can reach outside the root or into the
// temporaries. Every operation returns 0 or an errno value (EINVAL for a refused
// name, ENOENT for a missing object, EEXIST for a refused overwrite).
// Safe for concurrent use by many threads and processes: it keeps no state besides
// the root path.
class Object_Directory
{
public:
  explicit Object_Directory(const std::string& root);

  const std::string& root() const { return root_; }

  // Creates the root (and its parents) when missing.
  int create();

  int begin_write(const std::string& name, Object_Writer& writer) const;
  // Opens an object for reading; the caller closes the descriptor.
  int open_read(const std::string& name, int& fd, uint64_t& size) const;
  int size(const std::string& name, uint64_t& size) const;
  // Objects whose names start with `prefix` (any text), sorted, with their sizes.
  int list(const std::string& prefix, std::vector<std::pair<std::string, uint64_t>>& objects) const;
  int remove(const std::string& name) const;

  // Deletes temporaries left by writers that never finished (after a crash). Only
  // for the directory's single owner (backupd at start-up).
  void remove_stale_temporaries() const;

private:
  std::string path_of(const std::string& name) const;
  std::string root_;
};

#endif
