#include "backup/exchange/core/ews/ews_mtf_utils.h"

#include "host/base/hex.h"
#include "host/http/http_encoding.h"

#include <cstdio>

namespace
{
// Path components: only "/" escaping, lower-case digits.
const unsigned int name_flags = HTTP_ENCODE_SLASH;
// Index file names: "/" escaped, upper-case digits, ( ) ' * ! kept. The
// difference from name_flags is part of the stored format.
const unsigned int index_flags = HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX | HTTP_KEEP_LEFT_PAREN |
                                 HTTP_KEEP_RIGHT_PAREN | HTTP_KEEP_APOSTROPHE | HTTP_KEEP_ASTERISK |
                                 HTTP_KEEP_EXCLAMATION;

}  // namespace

std::string encode_name(const std::string& name)
{
  std::string out;
  http_encode_string(name, name_flags, out);
  return out;
}

std::string decode_path(const std::string& text)
{
  // Not http_decode_string: that one stops at a stray "%", while a path read
  // back from storage must decode as far as it can.
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i)
  {
    if (text[i] == '%' && i + 2 < text.size())
    {
      const int high = hex_digit_value(text[i + 1]);
      const int low = hex_digit_value(text[i + 2]);
      if (high >= 0 && low >= 0)
      {
        out.push_back(static_cast<char>((high << 4) | low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

std::string mailbox_to_path(const std::string& mailbox) { return "/" + encode_name(mailbox) + "/"; }

std::string get_mailbox(const std::string& path)
{
  if (path.empty())
    return std::string();
  const size_t end = path.find('/', 1);
  return decode_path(path.substr(1, end == std::string::npos ? std::string::npos : end - 1));
}

bool is_folder(const std::string& path) { return !path.empty() && path.back() == '/'; }

bool is_mailbox(const std::string& path)
{
  if (!is_folder(path))
    return false;
  size_t slashes = 0;
  for (char c : path)
    slashes += c == '/';
  return slashes < 3;
}

bool path_to_list(const std::string& path, std::list<std::string>& out, int skip)
{
  out.clear();
  // Split with adjacent separators compressed: a run of "/" ends one token.
  std::string token;
  bool after_separator = false;
  for (char c : path)
  {
    if (c == '/')
    {
      if (!after_separator)
        out.push_back(token);
      token.clear();
      after_separator = true;
      continue;
    }
    token.push_back(c);
    after_separator = false;
  }
  out.push_back(token);

  if (skip < 0 || static_cast<size_t>(skip) >= out.size())
  {
    out.clear();
    return true;
  }
  for (auto it = out.begin(); it != out.end();)
  {
    if (it->empty())
      it = out.erase(it);
    else
    {
      *it = decode_path(*it);
      ++it;
    }
  }
  for (int i = 0; i < skip && !out.empty(); ++i)
    out.pop_front();
  return true;
}

void index_name(const std::string& mailbox, int seq, std::string& out)
{
  std::string encoded;
  http_encode_string(mailbox, index_flags, encoded);
  char number[16];
  snprintf(number, sizeof number, "%d", seq);
  out = encoded + "." + number + ".idx";
}

std::string join_path(const std::string& dir, const std::string& name)
{
  if (!dir.empty() && dir.back() == '/')
    return dir + name;
  return dir + "/" + name;
}
