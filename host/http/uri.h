#ifndef HOST_HTTP_URI_H
#define HOST_HTTP_URI_H

#include <string>

// The parts of an absolute http or https URL, as split by URI_Parser.
// A URI is a plain value: copyable, no shared state.
class URI
{
public:
  URI() = default;

  const std::string& scheme() const { return scheme_; }
  bool is_ssl() const { return scheme_ == "https"; }
  // The port given in the URL, or the scheme's default (80, 443).
  int port() const { return port_; }
  // The host name; with `brackets` an IPv6 literal keeps its "[...]" form.
  std::string host(bool brackets) const;
  // The path, "/" when the URL has none.
  const std::string& path() const { return path_; }
  // The query string without its "?", empty when there is none.
  const std::string& query() const { return query_; }
  // "scheme://host[:port]" with the port only when it is not the scheme's default.
  std::string origin() const;
  // True for 127.0.0.0/8, ::1 and "localhost".
  bool is_loopback() const;

private:
  friend class URI_Parser;

  std::string scheme_;
  std::string host_;
  bool ipv6_ = false;
  int port_ = 0;
  std::string path_ = "/";
  std::string query_;
};

#endif
