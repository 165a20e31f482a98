#ifndef HOST_JSONRPC_OBJECT_INSERTER_H
#define HOST_JSONRPC_OBJECT_INSERTER_H

#include <nlohmann/json.hpp>

#include <utility>

// Fills a JSON object member by member, in the order of the calls, which is the
// order the members are written in:
//   Object_Inserter(result)("total", n)("rows", std::move(rows));
// The object is made an empty object first unless it already is one. Inserting a
// key again replaces its value in place.
class Object_Inserter
{
public:
  explicit Object_Inserter(nlohmann::ordered_json& obj) : obj_(&obj)
  {
    if (!obj.is_object())
      obj = nlohmann::ordered_json::object();
  }

  template <typename V>
  Object_Inserter& operator()(const char* key, V&& value)
  {
    (*obj_)[key] = std::forward<V>(value);
    return *this;
  }

private:
  nlohmann::ordered_json* obj_;
};

#endif
