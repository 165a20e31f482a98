#ifndef HOST_JSONRPC_JSON_OBJECT_GET_H
#define HOST_JSONRPC_JSON_OBJECT_GET_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

// Typed reads of one member of a JSON object, for checking params. None of them
// throws: a value that is not an object, a missing member and a member of another
// type all count as absent.

// The member `key` of `obj`, of any type; null when absent.
const nlohmann::ordered_json* object_get_any_ptr(const nlohmann::ordered_json& obj, const char* key);

// The string member `key`; null when absent or not a string. The pointer stays
// valid while `obj` is not changed.
const std::string* object_get_str(const nlohmann::ordered_json& obj, const char* key);
// As above, copied into `out` (left untouched when false is returned).
bool object_get_str(const nlohmann::ordered_json& obj, const char* key, std::string& out);

// The member `key` as a T, or `def` when it is absent or not of T's JSON type.
// Defined for int and int64_t (JSON integers only, never fractions, and only when
// the value fits in T), bool (JSON booleans) and std::string (JSON strings).
template <typename T>
T object_get_or_default(const nlohmann::ordered_json& obj, const char* key, const T& def);

template <>
int object_get_or_default<int>(const nlohmann::ordered_json& obj, const char* key, const int& def);
template <>
int64_t object_get_or_default<int64_t>(const nlohmann::ordered_json& obj, const char* key, const int64_t& def);
template <>
bool object_get_or_default<bool>(const nlohmann::ordered_json& obj, const char* key, const bool& def);
template <>
std::string object_get_or_default<std::string>(const nlohmann::ordered_json& obj, const char* key,
                                               const std::string& def);

// True when the member `key` is a JSON integer that fits in an int; its value in `out`.
bool object_get_int(const nlohmann::ordered_json& obj, const char* key, int& out);

#endif
