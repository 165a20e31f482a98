#include "host/http/uri_parser.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

namespace
{
struct URL_Deleter
{
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// One part of a parsed URL; false when the URL has none.
bool get_part(CURLU* url, CURLUPart what, unsigned int flags, std::string& out)
{
  char* part = nullptr;
  if (curl_url_get(url, what, &part, flags) != CURLUE_OK || part == nullptr)
    return false;
  out = part;
  curl_free(part);
  return true;
}
}  // namespace

// libcurl's URL API does the splitting and the syntax checks (spaces, control
// bytes, bad ports, unclosed IPv6 brackets); what is ours is the policy on top:
// http and https only, no user information, a port from 1 to 65535, the path
// kept as written (no "../" folding).
bool URI_Parser::parse(const char* text, URI& out)
{
  if (text == nullptr || *text == '\0')
    return false;
  std::unique_ptr<CURLU, URL_Deleter> url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text, CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
    return false;

  URI uri;
  std::string ignored, port;
  if (!get_part(url.get(), CURLUPART_SCHEME, 0, uri.scheme_) || (uri.scheme_ != "http" && uri.scheme_ != "https"))
    return false;
  if (get_part(url.get(), CURLUPART_USER, 0, ignored) || get_part(url.get(), CURLUPART_PASSWORD, 0, ignored))
    return false;
  if (!get_part(url.get(), CURLUPART_HOST, 0, uri.host_) || uri.host_.empty())
    return false;
  if (uri.host_.front() == '[' && uri.host_.back() == ']')
  {
    uri.host_ = uri.host_.substr(1, uri.host_.size() - 2);
    uri.ipv6_ = true;
  }
  if (!get_part(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT, port))
    return false;
  const long number = std::strtol(port.c_str(), nullptr, 10);
  if (number < 1 || number > 65535)
    return false;
  uri.port_ = static_cast<int>(number);
  if (!get_part(url.get(), CURLUPART_PATH, 0, uri.path_) || uri.path_.empty())
    uri.path_ = "/";
  get_part(url.get(), CURLUPART_QUERY, 0, uri.query_);
  out = uri;
  return true;
}
