#ifndef APPS_EXO_SIM_URL_ENCODE_H
#define APPS_EXO_SIM_URL_ENCODE_H

#include <string>

namespace exo_sim
{
// `s` percent-encoded for a URL, as the simulator writes its next links: every
// byte but the unreserved ones (A-Z a-z 0-9 - _ . ~) and those in `also_plain`
// becomes %XX.
inline std::string url_encode(const std::string& s, const char* also_plain = "")
{
  static const char hex[] = "0123456789ABCDEF";
  const std::string extra = also_plain;
  std::string out;
  for (unsigned char c : s)
  {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_' || c == '.' || c == '~' || extra.find(static_cast<char>(c)) != std::string::npos;
    if (plain)
    {
      out += static_cast<char>(c);
      continue;
    }
    out += '%';
    out += hex[c >> 4];
    out += hex[c & 15];
  }
  return out;
}
}  // namespace exo_sim

#endif
