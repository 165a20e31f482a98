#include "host/storage/s3_location.h"

#include <cctype>

#include "host/http/http_encoding.h"
#include "host/http/uri_parser.h"
#include "host/storage/storage_name.h"

bool S3_Location::has_scheme(const std::string& location)
{
  return location.compare(0, 10, "s3+http://") == 0 || location.compare(0, 11, "s3+https://") == 0;
}

// Bucket names of S3-compatible stores: 3 to 63 lower-case letters, digits, "-"
// and "."; anything else would not survive path-style addressing unchanged.
static bool is_bucket_name(const std::string& bucket)
{
  if (bucket.size() < 3 || bucket.size() > 63)
    return false;
  for (char c : bucket)
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.'))
      return false;
  return true;
}

bool S3_Location::is_region(const std::string& region)
{
  if (region.empty() || region.size() > 64)
    return false;
  for (char c : region)
    if (!(isalnum(static_cast<unsigned char>(c)) || c == '-'))
      return false;
  return true;
}

bool S3_Location::compose(const std::string& endpoint, const std::string& bucket, const std::string& prefix,
                          std::string& location)
{
  URI uri;
  if (!URI_Parser::parse(endpoint.c_str(), uri) || uri.path() != "/" || !uri.query().empty() ||
      !is_bucket_name(bucket) || (!prefix.empty() && !is_valid_storage_name(prefix)))
    return false;
  location = "s3+" + uri.scheme() + "://" + uri.host(true) + ":" + std::to_string(uri.port()) + "/" + bucket;
  if (!prefix.empty())
    location += "/" + prefix;
  return true;
}

bool S3_Location::parse(const std::string& location, std::string& error)
{
  URI uri;
  if (!has_scheme(location) || !URI_Parser::parse(location.c_str() + 3, uri) || !uri.query().empty())
  {
    error = "not an object store location: " + location;
    return false;
  }
  std::string path = uri.path().substr(1);
  while (!path.empty() && path.back() == '/')
    path.pop_back();
  const size_t slash = path.find('/');
  const std::string bucket = path.substr(0, slash);
  const std::string prefix = slash == std::string::npos ? "" : path.substr(slash + 1);
  if (!is_bucket_name(bucket) || (!prefix.empty() && !is_valid_storage_name(prefix)))
  {
    error = "no valid bucket and prefix in " + location;
    return false;
  }
  URI endpoint;
  URI_Parser::parse((uri.scheme() + "://" + uri.host(true) + ":" + std::to_string(uri.port()) + "/").c_str(), endpoint);
  endpoint_ = endpoint;
  bucket_ = bucket;
  prefix_ = prefix;
  return true;
}

std::string S3_Location::key(const std::string& name) const { return prefix_.empty() ? name : prefix_ + "/" + name; }

std::string S3_Location::bucket_path() const { return "/" + bucket_; }

std::string S3_Location::object_path(const std::string& key) const
{
  std::string path = bucket_path();
  size_t begin = 0;
  for (;;)
  {
    const size_t end = key.find('/', begin);
    std::string encoded;
    http_encode_string(key.substr(begin, end == std::string::npos ? std::string::npos : end - begin),
                       HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX, encoded);
    path += "/" + encoded;
    if (end == std::string::npos)
      return path;
    begin = end + 1;
  }
}
