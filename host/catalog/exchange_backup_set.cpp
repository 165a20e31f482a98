#include "host/catalog/exchange_backup_set.h"
#include <nlohmann/json.hpp>

nlohmann::ordered_json Exchange_Backup_Set::to_json() const
{
  nlohmann::ordered_json v;
  v["uuid"] = uuid;
  v["module"] = module;
  v["resource_uuid"] = resource_uuid;
  v["minor_resource_id"] = minor_resource_id;
  v["host_uuid"] = host_uuid;
  v["instance"] = instance;
  v["database"] = database;
  v["backup_method"] = backup_method;
  v["transport"] = transport;
  v["incarnation"] = incarnation;
  v["pool_uuid"] = pool_uuid;
  v["device_uuid"] = device_uuid;
  v["uri"] = uri;
  v["rev"] = rev;
  v["agent"] = agent;
  v["channels"] = channels;
  v["definition_name"] = definition_name;
  v["definition_uid"] = definition_uid;
  v["subtype"] = subtype;
  v["files"] = files;
  v["catalogs"] = catalogs;
  v["index_files"] = index_files;
  v["failed_mailboxes"] = failed_mailboxes;
  v["size"] = size;
  v["set_size"] = set_size;
  v["set_storage_size"] = set_storage_size;
  v["backup_start_time"] = backup_start_time;
  v["backup_end_time"] = backup_end_time;
  return v;
}

namespace
{
// Reads members one by one; the first problem stops the reading and is kept.
class Reader
{
public:
  Reader(const nlohmann::ordered_json& value, std::string& error) : value_(value), error_(error) {}

  bool ok() const { return ok_; }

  void text(const char* key, std::string& out, bool required = false)
  {
    const nlohmann::ordered_json* v = find(key, required);
    if (v == nullptr)
      return;
    if (!v->is_string())
      return wrong(key, "a string");
    out = v->get<std::string>();
  }

  template <typename T>
  void integer(const char* key, T& out, bool required = false)
  {
    const nlohmann::ordered_json* v = find(key, required);
    if (v == nullptr)
      return;
    if (!v->is_number_integer() || (std::is_unsigned<T>::value && v->get<long long>() < 0))
      return wrong(key, "an integer");
    out = v->get<T>();
  }

  void texts(const char* key, std::vector<std::string>& out)
  {
    const nlohmann::ordered_json* v = find(key, false);
    if (v == nullptr)
      return;
    if (!v->is_array())
      return wrong(key, "an array of strings");
    std::vector<std::string> list;
    for (const auto& item : *v)
    {
      if (!item.is_string())
        return wrong(key, "an array of strings");
      list.push_back(item.get<std::string>());
    }
    out.swap(list);
  }

private:
  const nlohmann::ordered_json* find(const char* key, bool required)
  {
    if (!ok_)
      return nullptr;
    auto it = value_.find(key);
    if (it == value_.end())
    {
      if (required)
      {
        ok_ = false;
        error_ = std::string("\"") + key + "\" is missing";
      }
      return nullptr;
    }
    return &*it;
  }

  void wrong(const char* key, const char* type)
  {
    ok_ = false;
    error_ = std::string("\"") + key + "\" is not " + type;
  }

  const nlohmann::ordered_json& value_;
  std::string& error_;
  bool ok_ = true;
};
}  // namespace

bool Exchange_Backup_Set::from_json(const nlohmann::ordered_json& value, std::string& error)
{
  if (!value.is_object())
  {
    error = "the record is not an object";
    return false;
  }
  Exchange_Backup_Set set;
  Reader r(value, error);
  r.text("uuid", set.uuid, true);
  r.text("module", set.module, true);
  r.text("resource_uuid", set.resource_uuid, true);
  r.text("minor_resource_id", set.minor_resource_id);
  r.text("host_uuid", set.host_uuid);
  r.text("instance", set.instance);
  r.text("database", set.database);
  r.text("backup_method", set.backup_method);
  r.text("transport", set.transport);
  r.text("incarnation", set.incarnation);
  r.text("pool_uuid", set.pool_uuid);
  r.text("device_uuid", set.device_uuid);
  r.text("uri", set.uri);
  r.integer("rev", set.rev, true);
  r.text("agent", set.agent);
  r.integer("channels", set.channels);
  r.text("definition_name", set.definition_name);
  r.text("definition_uid", set.definition_uid);
  r.text("subtype", set.subtype);
  r.texts("files", set.files);
  r.texts("catalogs", set.catalogs);
  r.texts("index_files", set.index_files);
  r.texts("failed_mailboxes", set.failed_mailboxes);
  r.integer("size", set.size);
  r.integer("set_size", set.set_size);
  r.integer("set_storage_size", set.set_storage_size);
  r.integer("backup_start_time", set.backup_start_time, true);
  r.integer("backup_end_time", set.backup_end_time);
  if (!r.ok())
    return false;
  *this = set;
  return true;
}
