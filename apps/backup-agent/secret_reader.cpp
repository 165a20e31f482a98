#include "apps/backup-agent/secret_reader.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

namespace
{
bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

void trim(Secure_String& text)
{
  size_t end = text.size();
  while (end > 0 && is_space(text[end - 1]))
    --end;
  size_t begin = 0;
  while (begin < end && is_space(text[begin]))
    ++begin;
  text = text.substr(begin, end - begin);
}

// Turns the terminal's echo off while it lives.
class Echo_Off
{
public:
  explicit Echo_Off(int fd) : fd_(fd), off_(::tcgetattr(fd, &saved_) == 0)
  {
    if (!off_)
      return;
    termios quiet = saved_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    off_ = ::tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
  }
  ~Echo_Off()
  {
    if (off_)
      ::tcsetattr(fd_, TCSAFLUSH, &saved_);
  }
  Echo_Off(const Echo_Off&) = delete;
  Echo_Off& operator=(const Echo_Off&) = delete;

private:
  int fd_;
  termios saved_;
  bool off_;
};
}  // namespace

bool Secret_Reader::read_line(int fd, Secure_String& secret, std::string& error)
{
  secret.clear();
  secret.reserve(max_length + 1);  // never reallocated: no unwiped copies
  char c;
  for (;;)
  {
    const ssize_t n = ::read(fd, &c, 1);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
    {
      error = std::strerror(errno);
      return false;
    }
    if (n == 0 || c == '\n')
      break;
    if (secret.size() == max_length)
    {
      error = "the secret is longer than " + std::to_string(max_length) + " characters";
      return false;
    }
    secret.push_back(c);
  }
  trim(secret);
  if (secret.empty())
  {
    error = "no secret given";
    return false;
  }
  return true;
}

bool Secret_Reader::from_file(const std::string& path, Secure_String& secret, std::string& error)
{
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
  {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  const bool ok = read_line(fd, secret, error);
  ::close(fd);
  if (!ok)
    error = path + ": " + error;
  return ok;
}

bool Secret_Reader::from_stdin(const char* prompt, std::ostream& prompt_out, Secure_String& secret, std::string& error)
{
  std::unique_ptr<Echo_Off> quiet;
  if (::isatty(0))
  {
    prompt_out << prompt << std::flush;
    quiet.reset(new Echo_Off(0));
  }
  if (read_line(0, secret, error))
    return true;
  error = "standard input: " + error;
  return false;
}
