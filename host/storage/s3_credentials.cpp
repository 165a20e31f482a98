#include "host/storage/s3_credentials.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "host/base/text_file.h"
#include "host/base/trim.h"

bool S3_Credentials::read_file(const std::string& path, std::string& error)
{
  struct stat st;
  if (::stat(path.c_str(), &st) != 0)
  {
    error = "cannot read the credentials file '" + path + "': " + std::strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode) || (st.st_mode & 077) != 0)
  {
    error = "the credentials file '" + path + "' is not a regular file only its owner can access; run chmod 600 on it";
    return false;
  }
  std::string text;
  if (!read_text_file(path, text))
  {
    error = "cannot read the credentials file '" + path + "'";
    return false;
  }
  if (!parse(text))
  {
    error = "the credentials file '" + path +
            "' holds neither {\"access_key_id\", \"secret_access_key\"} nor two lines of key id and secret";
    return false;
  }
  return true;
}

bool S3_Credentials::parse(const std::string& text)
{
  S3_Credentials read;
  const std::string trimmed = trim_space(text);
  if (!trimmed.empty() && trimmed[0] == '{')
  {
    const auto doc = nlohmann::json::parse(trimmed, nullptr, false);
    if (!doc.is_object() || !doc.contains("access_key_id") || !doc["access_key_id"].is_string() ||
        !doc.contains("secret_access_key") || !doc["secret_access_key"].is_string())
      return false;
    read.access_key_id = trim_space(doc["access_key_id"].get<std::string>());
    read.secret_access_key = trim_space(doc["secret_access_key"].get<std::string>());
  }
  else
  {
    const size_t newline = trimmed.find('\n');
    if (newline == std::string::npos)
      return false;
    read.access_key_id = trim_space(trimmed.substr(0, newline));
    read.secret_access_key = trim_space(trimmed.substr(newline + 1));
    if (read.secret_access_key.find('\n') != std::string::npos)
      return false;
  }
  // Both go into HTTP fields: no white space or control bytes inside.
  for (const std::string* part : {&read.access_key_id, &read.secret_access_key})
    for (char c : *part)
      if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f)
        return false;
  if (read.empty())
    return false;
  *this = read;
  return true;
}
