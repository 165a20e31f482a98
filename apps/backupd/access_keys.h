#ifndef APPS_BACKUPD_ACCESS_KEYS_H
#define APPS_BACKUPD_ACCESS_KEYS_H

#include <string>
#include <vector>

// The access keys backupd accepts, read from the key file given with
// --access-key-file: one key per line; blank lines and lines starting with "#"
// are skipped, surrounding blanks trimmed. The file should be readable by its
// owner only; backupd warns otherwise. Keys never appear in logs or answers.
class Access_Keys
{
public:
  // Keys shorter than this are refused: a key is all that guards the backups.
  static const size_t MIN_KEY_LENGTH = 16;

  // False with `error` when the file cannot be read, holds no key or a key
  // shorter than MIN_KEY_LENGTH.
  bool load(const std::string& path, std::string& error);
  // Compares in time independent of where a wrong key differs.
  bool accepts(const std::string& key) const;

private:
  std::vector<std::string> keys_;
};

#endif
