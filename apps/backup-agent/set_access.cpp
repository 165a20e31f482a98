#include "apps/backup-agent/set_access.h"

#include "host/catalog/read_catalogs.h"
#include "host/ews/ews_folders_index.h"
#include "host/http/http_encoding.h"
#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"

#include <nlohmann/json.hpp>

bool Set_Access::find(const std::string& uuid, Exchange_Backup_Set& record, std::string& error)
{
  std::string encoded;
  http_encode_string(uuid, HTTP_ENCODE_SLASH, encoded);
  const std::string query = "/d2/r/v2/sets/restore/sets?module=exchange&uuid=" + encoded;
  nlohmann::ordered_json result;
  if (!read_catalogs(query.c_str(), result, -1, 30) || !result.contains("rows") || !result["rows"].is_array())
  {
    error = "the catalog cannot be read";
    return false;
  }
  if (result["rows"].empty())
  {
    error = "no backup set " + uuid;
    return false;
  }
  return record.from_json(result["rows"][0], error);
}

bool Set_Access::open(const Exchange_Backup_Set& record, Client_IO_Ex& io, std::string& error)
{
  Pool_Info pool;
  Client_IO_Base::Options options;
  if (!get_pool_info(record.pool_uuid, nullptr, pool, POOL_ACCESS_READ, 30, nullptr) ||
      !set_options_by_pool(options, pool))
  {
    error = "the set's pool " + record.pool_uuid + " is unknown";
    return false;
  }
  const std::string key = Host_Manager::instance().effective_access_key();
  if (const char* header = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, key))
    options.set_extra_option(header, key);
  if (!io.open(pool.url + "/" + record.uri, options))
  {
    error = "the set's storage cannot be opened";
    return false;
  }
  return true;
}

std::string Set_Access::index_mailbox(const std::string& name)
{
  std::string decoded;
  http_decode_string(name.substr(0, name.rfind('.', name.size() - 5)), 0, decoded);
  return decoded;
}

bool Set_Access::read_index(Client_IO_Ex& io, const std::string& name, EWS_Folders& tree,
                            std::vector<std::string>& failed, std::string& error)
{
  std::string text;
  if (!io.get_contents(name, text))
  {
    error = "the index " + name + " cannot be read: " + io.last_error();
    return false;
  }
  if (!load_ews_folders(text, tree, failed, error))
  {
    error = "the index " + name + " cannot be read: " + error;
    return false;
  }
  return true;
}

std::string Set_Access::path_name(const std::string& name)
{
  std::string out;
  http_encode_string(name, HTTP_ENCODE_SLASH, out);
  return out;
}

std::string Set_Access::shown_path(const std::string& path)
{
  std::string out;
  size_t begin = 0;
  while (begin < path.size())
  {
    size_t end = path.find('/', begin);
    if (end == std::string::npos)
      end = path.size();
    const std::string part = path.substr(begin, end - begin);
    std::string decoded;
    http_decode_string(part, 0, decoded);
    out += (begin == 0 ? "" : "/") + (decoded.empty() ? part : decoded);
    begin = end + 1;
  }
  return out;
}

std::string Set_Access::item_name(const EWS_Item& item)
{
  if (!item.display_name.empty())
    return item.display_name;
  if (!item.subject.empty())
    return item.subject;
  return "(no subject)";
}
