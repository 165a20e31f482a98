#include "host/jsonrpc/json_object_get.h"

#include <cstdint>
#include <limits>

namespace
{
// A JSON integer within [lo, hi]. Unsigned values are compared as unsigned, so
// a value above the signed range is out of range rather than wrapped.
bool integer_in_range(const nlohmann::ordered_json& value, int64_t lo, int64_t hi, int64_t& out)
{
  if (value.is_number_unsigned())
  {
    const uint64_t u = value.get<uint64_t>();
    if (u > static_cast<uint64_t>(hi))
      return false;
    out = static_cast<int64_t>(u);
    return true;
  }
  if (!value.is_number_integer())
    return false;
  const int64_t i = value.get<int64_t>();
  if (i < lo || i > hi)
    return false;
  out = i;
  return true;
}
}  // namespace

const nlohmann::ordered_json* object_get_any_ptr(const nlohmann::ordered_json& obj, const char* key)
{
  if (!obj.is_object())
    return nullptr;
  const auto it = obj.find(key);
  return it == obj.end() ? nullptr : &*it;
}

const std::string* object_get_str(const nlohmann::ordered_json& obj, const char* key)
{
  const nlohmann::ordered_json* value = object_get_any_ptr(obj, key);
  return value != nullptr && value->is_string() ? value->get_ptr<const std::string*>() : nullptr;
}

bool object_get_str(const nlohmann::ordered_json& obj, const char* key, std::string& out)
{
  const std::string* value = object_get_str(obj, key);
  if (value == nullptr)
    return false;
  out = *value;
  return true;
}

bool object_get_int(const nlohmann::ordered_json& obj, const char* key, int& out)
{
  const nlohmann::ordered_json* value = object_get_any_ptr(obj, key);
  int64_t i = 0;
  if (value == nullptr ||
      !integer_in_range(*value, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), i))
    return false;
  out = static_cast<int>(i);
  return true;
}

template <>
int object_get_or_default<int>(const nlohmann::ordered_json& obj, const char* key, const int& def)
{
  int out = def;
  return object_get_int(obj, key, out) ? out : def;
}

template <>
int64_t object_get_or_default<int64_t>(const nlohmann::ordered_json& obj, const char* key, const int64_t& def)
{
  const nlohmann::ordered_json* value = object_get_any_ptr(obj, key);
  int64_t out = def;
  if (value == nullptr ||
      !integer_in_range(*value, std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max(), out))
    return def;
  return out;
}

template <>
bool object_get_or_default<bool>(const nlohmann::ordered_json& obj, const char* key, const bool& def)
{
  const nlohmann::ordered_json* value = object_get_any_ptr(obj, key);
  return value != nullptr && value->is_boolean() ? value->get<bool>() : def;
}

template <>
std::string object_get_or_default<std::string>(const nlohmann::ordered_json& obj, const char* key,
                                               const std::string& def)
{
  const std::string* value = object_get_str(obj, key);
  return value != nullptr ? *value : def;
}
