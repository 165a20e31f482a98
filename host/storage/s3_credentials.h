#ifndef HOST_STORAGE_S3_CREDENTIALS_H
#define HOST_STORAGE_S3_CREDENTIALS_H

#include <string>

// The access key of a pool on an S3-compatible store: its id and its secret.
// Read by backupd from the pool's credentials file, handed to agents in the pool
// information, and used by Client_IO_S3 to sign requests. Neither part is ever
// put in a log line or an error text.
struct S3_Credentials
{
  std::string access_key_id;
  std::string secret_access_key;

  bool empty() const { return access_key_id.empty() || secret_access_key.empty(); }

  // Reads a credentials file, which only its owner may read or write (mode 0600
  // or stricter). Either JSON, {"access_key_id": "...", "secret_access_key":
  // "..."}, or two lines: the access key id, then the secret. Surrounding white
  // space is dropped. False with `error` (which never holds the file's content)
  // when the file is missing, too open or not in one of these forms.
  bool read_file(const std::string& path, std::string& error);
  // Reads either form from `text`; false when it is neither.
  bool parse(const std::string& text);
};

#endif
