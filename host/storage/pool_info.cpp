#include "host/storage/pool_info.h"

#include "host/http/http_encoding.h"
#include "host/base/log.h"
#include "host/storage/backupd_client.h"

static bool read_string(const nlohmann::ordered_json& value, const char* key, std::string& out, std::string& error)
{
  auto it = value.find(key);
  if (it == value.end() || !it->is_string())
  {
    error = std::string("\"") + key + "\" is missing or not a string";
    return false;
  }
  out = it->get<std::string>();
  return true;
}

bool Pool_Info::from_json(const nlohmann::ordered_json& value, std::string& error)
{
  if (!value.is_object())
  {
    error = "pool information is not an object";
    return false;
  }
  if (!read_string(value, "uuid", uuid, error) || !read_string(value, "name", name, error) ||
      !read_string(value, "host_uuid", host_uuid, error) || !read_string(value, "url", url, error))
    return false;
  auto it = value.find("settings");
  if (it != value.end() && !it->is_object())
  {
    error = "\"settings\" is not an object";
    return false;
  }
  settings = it == value.end() ? nlohmann::ordered_json::object() : *it;
  return true;
}

nlohmann::ordered_json Pool_Info::to_json() const
{
  nlohmann::ordered_json value;
  value["uuid"] = uuid;
  value["name"] = name;
  value["host_uuid"] = host_uuid;
  value["url"] = url;
  value["settings"] = settings;
  return value;
}

bool get_pool_info(const std::string& pool_uuid, const char* device_uuid, Pool_Info& info, int mode,
                   int max_seconds_retry, void* reserved)
{
  if (reserved != nullptr || pool_uuid.empty())
  {
    LOG_MSG(LM_ERROR, "Invalid pool information request, uuid = %s\n", pool_uuid.c_str());
    return false;
  }
  std::string encoded;
  http_encode_string(pool_uuid, HTTP_ENCODE_SLASH, encoded);
  std::string resource = "/d2/r/v2/pools/" + encoded + "?access=" + (mode == POOL_ACCESS_READ ? "read" : "write");
  if (device_uuid != nullptr && *device_uuid != '\0')
  {
    http_encode_string(device_uuid, HTTP_ENCODE_SLASH, encoded);
    resource += "&device_uuid=" + encoded;
  }
  Backupd_Client client(-1, max_seconds_retry);
  std::string answer;
  if (!client.get(resource, answer))
  {
    LOG_MSG(LM_ERROR, "Failed to ask backupd for pool %s: %s\n", pool_uuid.c_str(), client.error().c_str());
    return false;
  }
  std::string error;
  Pool_Info read;
  if (!read.from_json(nlohmann::ordered_json::parse(answer, nullptr, false), error))
  {
    LOG_MSG(LM_ERROR, "Unrecognized pool information of %s: %s\n", pool_uuid.c_str(), error.c_str());
    return false;
  }
  info = read;
  return true;
}

template <typename T>
static bool read_number(const nlohmann::ordered_json& settings, const char* key, T& out)
{
  auto it = settings.find(key);
  if (it == settings.end())
    return true;
  if (!it->is_number_integer() || it->get<long long>() < 0)
    return false;
  out = static_cast<T>(it->get<long long>());
  return true;
}

// An object store pool's region and access key, as backupd hands them out.
static bool read_s3_settings(const nlohmann::ordered_json& settings, Client_IO_Base::Options& options)
{
  auto s3 = settings.find("s3");
  if (s3 == settings.end())
    return true;
  if (!s3->is_object())
    return false;
  for (const char* key : {"region", "access_key_id", "secret_access_key"})
    if (s3->contains(key) && !(*s3)[key].is_string())
      return false;
  options.s3_region = s3->value("region", std::string());
  options.s3_credentials.access_key_id = s3->value("access_key_id", std::string());
  options.s3_credentials.secret_access_key = s3->value("secret_access_key", std::string());
  return true;
}

bool set_options_by_pool(Client_IO_Base::Options& options, const Pool_Info& info)
{
  if (info.url.empty())
  {
    LOG_MSG(LM_ERROR, "Pool %s has no storage URL\n", info.uuid.c_str());
    return false;
  }
  Client_IO_Base::Options result = options;
  int compression = result.compression_method;
  bool ok = read_number(info.settings, "max_seconds_retry", result.max_seconds_retry) &&
            read_number(info.settings, "resumption_buffer_size", result.resumption_buffer_size) &&
            read_number(info.settings, "dedup_chunk_size", result.dedup_chunk_size) &&
            read_number(info.settings, "compression_method", compression) && compression <= COMPR_ZSTD;
  result.compression_method = static_cast<Compression_Method>(compression);
  auto extra = info.settings.find("extra_options");
  if (ok && extra != info.settings.end())
  {
    ok = extra->is_object();
    for (auto it = extra->begin(); ok && it != extra->end(); ++it)
    {
      ok = it.value().is_string();
      if (ok)
        result.set_extra_option(it.key(), it.value().get<std::string>());
    }
  }
  if (ok)
    ok = read_s3_settings(info.settings, result);
  if (!ok)
  {
    LOG_MSG(LM_ERROR, "Pool %s has settings of the wrong type\n", info.uuid.c_str());
    return false;
  }
  options = result;
  return true;
}
