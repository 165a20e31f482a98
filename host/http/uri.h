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
  // True when the host is a loopback address (see is_loopback_host).
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

// The one loopback rule of the host layer: "localhost", an IPv4 address in
// 127.0.0.0/8 or the IPv6 address ::1 (with or without brackets), decided by
// parsing the address, never by its text's prefix ("127.example.com" is not).
bool is_loopback_host(const std::string& host);

#endif
