#include "apps/exo-sim/id_formats.h"

#include "apps/exo-sim/base64_codec.h"

namespace exo_sim
{

namespace
{

const std::string k_ews_prefix("\x00\x03\x24", 3);
const std::string k_legacy_prefix("\x00\x01\x24", 3);
const std::string k_entry_head = std::string(4, '\0') + "exo-sim provider";  // flags + 16-byte uid
const char k_owa_lead = '\x46';

bool digits(const std::string& s)
{
  return !s.empty() && s.size() <= 18 && s.find_first_not_of("0123456789") == std::string::npos;
}

// "F:m:f", "I:m:f:n" or "U:m:serial".
bool tag_well_formed(const std::string& tag)
{
  if (tag.size() < 3 || tag[1] != ':')
    return false;
  size_t want = tag[0] == 'F' ? 2 : tag[0] == 'I' ? 3 : tag[0] == 'U' ? 2 : 0;
  size_t parts = 0, pos = 2;
  while (pos <= tag.size())
  {
    size_t colon = tag.find(':', pos);
    if (!digits(tag.substr(pos, colon == std::string::npos ? std::string::npos : colon - pos)))
      return false;
    ++parts;
    if (colon == std::string::npos)
      break;
    pos = colon + 1;
  }
  return want > 0 && parts == want;
}

bool strip(const std::string& raw, const std::string& head, std::string& tagged)
{
  if (raw.compare(0, head.size(), head) != 0)
    return false;
  tagged = raw.substr(head.size());
  return tag_well_formed(tagged);
}

std::string hex(const std::string& bytes)
{
  static const char digits16[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes)
  {
    out += digits16[c >> 4];
    out += digits16[c & 15];
  }
  return out;
}

bool unhex(const std::string& text, std::string& bytes)
{
  if (text.size() % 2)
    return false;
  auto nibble = [](char c)
  {
    if (c >= '0' && c <= '9')
      return c - '0';
    if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
    return -1;
  };
  bytes.clear();
  for (size_t k = 0; k < text.size(); k += 2)
  {
    int hi = nibble(text[k]), lo = nibble(text[k + 1]);
    if (hi < 0 || lo < 0)
      return false;
    bytes += char(hi * 16 + lo);
  }
  return true;
}

std::string percent_escape(const std::string& s)
{
  std::string out;
  for (char c : s)
    out += c == '+' ? "%2B" : c == '/' ? "%2F" : c == '=' ? "%3D" : std::string(1, c);
  return out;
}

bool percent_unescape(const std::string& s, std::string& out)
{
  out.clear();
  for (size_t k = 0; k < s.size(); ++k)
  {
    if (s[k] != '%')
    {
      out += s[k];
      continue;
    }
    std::string code = k + 2 < s.size() ? s.substr(k + 1, 2) : "";
    std::string byte;
    if (code.size() != 2 || !unhex(code, byte))
      return false;
    out += byte;
    k += 2;
  }
  return true;
}

}  // namespace

bool id_format_known(const std::string& f)
{
  return f == "EwsId" || f == "EwsLegacyId" || f == "EntryId" || f == "HexEntryId" || f == "StoreId" || f == "OwaId";
}

bool id_from_format(const std::string& format, const std::string& id, std::string& tagged)
{
  std::string raw;
  if (format == "EwsId")
    return base64_decode(id, raw) && strip(raw, k_ews_prefix, tagged);
  if (format == "EwsLegacyId")
    return base64_decode(id, raw) && strip(raw, k_legacy_prefix, tagged);
  if (format == "EntryId")
    return base64_decode(id, raw) && strip(raw, k_entry_head, tagged);
  if (format == "HexEntryId")
    return unhex(id, raw) && strip(raw, k_entry_head, tagged);
  if (format == "StoreId")
  {
    if (!base64_decode(id, raw) || raw.size() < 2)
      return false;
    size_t n = size_t(uint8_t(raw[0])) | size_t(uint8_t(raw[1])) << 8;
    return n == raw.size() - 2 && strip(raw.substr(2), k_entry_head, tagged);
  }
  if (format == "OwaId")
  {
    std::string text;
    return percent_unescape(id, text) && base64_decode(text, raw) && !raw.empty() && raw[0] == k_owa_lead &&
           strip(raw.substr(1), k_entry_head, tagged);
  }
  return false;
}

std::string id_to_format(const std::string& format, const std::string& tagged)
{
  std::string entry = k_entry_head + tagged;
  if (format == "EwsLegacyId")
    return base64_encode(k_legacy_prefix + tagged);
  if (format == "EntryId")
    return base64_encode(entry);
  if (format == "HexEntryId")
    return hex(entry);
  if (format == "StoreId")
  {
    std::string len;
    len += char(entry.size() & 0xff);
    len += char((entry.size() >> 8) & 0xff);
    return base64_encode(len + entry);
  }
  if (format == "OwaId")
    return percent_escape(base64_encode(std::string(1, k_owa_lead) + entry));
  return base64_encode(k_ews_prefix + tagged);
}

}  // namespace exo_sim
