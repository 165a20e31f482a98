#include "apps/backup-agent/agent_api_key.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
bool is_hex_key(const Secure_String& text)
{
  if (text.size() != 2 * Agent_API_Key::KEY_BYTES)
    return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
      return false;
  return true;
}

// A new key: KEY_BYTES from getrandom, which blocks only until the kernel's
// pool has been seeded once.
bool new_key(Secure_String& key)
{
  unsigned char bytes[Agent_API_Key::KEY_BYTES];
  size_t got = 0;
  while (got < sizeof bytes)
  {
    const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno != EINTR)
      return false;
    if (n > 0)
      got += static_cast<size_t>(n);
  }
  static const char digits[] = "0123456789abcdef";
  key.clear();
  for (unsigned char b : bytes)
  {
    key.push_back(digits[b >> 4]);
    key.push_back(digits[b & 15]);
  }
  explicit_bzero(bytes, sizeof bytes);
  return true;
}

bool write_all(int fd, const char* data, size_t size)
{
  while (size > 0)
  {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}
}  // namespace

std::string Agent_API_Key::file_in(const std::string& state_dir) { return state_dir + "/api_key"; }

bool Agent_API_Key::load_or_create(const std::string& path, std::string& error)
{
  // Exclusive creation: of two agents starting at once, one writes the key and
  // the other reads it.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0 && errno != EEXIST)
  {
    error = "cannot create the API key file " + path + ": " + std::strerror(errno);
    return false;
  }
  if (fd >= 0)
  {
    Secure_String key;
    bool ok = new_key(key);
    if (!ok)
      error = "the random source failed while making the API key";
    else
    {
      key.push_back('\n');
      ok = write_all(fd, key.data(), key.size()) && ::fsync(fd) == 0;
      if (!ok)
        error = "cannot write the API key file " + path + ": " + std::strerror(errno);
    }
    ::close(fd);
    if (!ok)
    {
      ::unlink(path.c_str());
      return false;
    }
  }
  return read(path, error);
}

bool Agent_API_Key::read(const std::string& path, std::string& error)
{
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat st;
  if (fd < 0 || ::fstat(fd, &st) != 0)
  {
    error = "cannot read the API key file " + path + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    return false;
  }
  if (!S_ISREG(st.st_mode) || (st.st_mode & 077) != 0)
  {
    ::close(fd);
    error = "the API key file " + path + " must be a regular file readable by its owner only (chmod 600)";
    return false;
  }
  char buffer[2 * KEY_BYTES + 2];
  size_t got = 0;
  while (got < sizeof buffer)
  {
    const ssize_t n = ::read(fd, buffer + got, sizeof buffer - got);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    got += static_cast<size_t>(n);
  }
  ::close(fd);
  Secure_String text(buffer, got);
  explicit_bzero(buffer, sizeof buffer);
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
    text.pop_back();
  if (!is_hex_key(text))
  {
    error = "the API key file " + path + " does not hold a key of 64 hex digits; remove it to have a new one made";
    return false;
  }
  key_ = text;
  return true;
}

bool Agent_API_Key::accepts(const std::string& authorization) const
{
  static const char scheme[] = "bearer ";
  const size_t scheme_size = sizeof scheme - 1;
  if (key_.empty() || authorization.size() < scheme_size)
    return false;
  for (size_t i = 0; i < scheme_size; ++i)
    if (std::tolower(static_cast<unsigned char>(authorization[i])) != scheme[i])
      return false;
  const char* given = authorization.data() + scheme_size;
  const size_t given_size = authorization.size() - scheme_size;
  // Every byte of the key is compared whatever the outcome; only the given
  // length (not secret) decides how far the given text is read.
  unsigned int diff = given_size == key_.size() ? 0 : 1;
  for (size_t i = 0; i < key_.size(); ++i)
    diff |= static_cast<unsigned char>(key_[i]) ^ static_cast<unsigned char>(i < given_size ? given[i] : 0);
  return diff == 0;
}
