#ifndef APPS_BACKUP_AGENT_SECRET_READER_H
#define APPS_BACKUP_AGENT_SECRET_READER_H

#include "host/base/secure_allocator.h"

#include <ostream>
#include <string>

// Reads a secret (a client secret) from a file or from standard input: the
// first line, without surrounding white space. On a terminal it asks for the
// secret with `prompt` and does not echo it. The secret is only ever held in
// wiped memory here and never written anywhere.
class Secret_Reader
{
public:
  static const size_t max_length = 4096;

  // From `path`; false (and `error`) when it cannot be read or holds no secret.
  static bool from_file(const std::string& path, Secure_String& secret, std::string& error);
  // From standard input (file descriptor 0); the prompt goes to `prompt_out`.
  static bool from_stdin(const char* prompt, std::ostream& prompt_out, Secure_String& secret, std::string& error);

private:
  static bool read_line(int fd, Secure_String& secret, std::string& error);
};

#endif
