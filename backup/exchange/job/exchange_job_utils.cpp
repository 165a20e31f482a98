#include "backup/exchange/job/exchange_job_utils.h"

#include <nlohmann/json.hpp>

#include "host/http/http_encoding.h"
#include "host/base/log.h"

#include <cstring>

namespace
{
const size_t ENTRY_PREFIX_LENGTH = 11;

// Reads the segment at `cursor` (up to the next "/" or the end) into `out`, and
// moves the cursor past it. False when the segment lies outside the entry or
// does not decode.
bool read_segment(const char*& cursor, const char* end, std::string* out)
{
  const char* slash = cursor < end ? std::strchr(cursor, '/') : nullptr;
  const char* segment_end = (slash != nullptr && slash < end) ? slash : end;
  if (segment_end < cursor)
    return false;
  if (out != nullptr && !http_decode_string(cursor, segment_end, 0, *out))
    return false;
  cursor = segment_end + 1;
  return true;
}
}  // namespace

void parse_entry(const char* val, size_t len, std::string* first, std::string* second, std::string* rest)
{
  if (val == nullptr || len == 0 || *val == '\0')
  {
    LOG_UNEXPECTED("val is NULL or \"\"");
    return;
  }
  for (std::string* out : {first, second, rest})
    if (out != nullptr)
      out->clear();

  const char* cursor = val + ENTRY_PREFIX_LENGTH;
  const char* end = val + len;
  if (read_segment(cursor, end, first) && read_segment(cursor, end, second) && rest != nullptr && cursor < end)
    http_decode_string(cursor, end, 0, *rest);
}

bool read_json_string(const nlohmann::ordered_json& row, const char* key, std::string& out, std::string& error)
{
  auto it = row.find(key);
  if (it == row.end() || !it->is_string())
  {
    error = std::string("\"") + key + "\" is missing or not a string";
    return false;
  }
  out = it->get<std::string>();
  return true;
}

bool read_json_int(const nlohmann::ordered_json& row, const char* key, int& out, std::string& error)
{
  auto it = row.find(key);
  if (it == row.end() || !it->is_number_integer())
  {
    error = std::string("\"") + key + "\" is missing or not an integer";
    return false;
  }
  out = it->get<int>();
  return true;
}
