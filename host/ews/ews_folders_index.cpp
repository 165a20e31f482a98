#include "host/ews/ews_folders_index.h"

#include "host/base/log.h"

#include <nlohmann/json.hpp>

using json = nlohmann::ordered_json;

const int ews_folders_index_version = 2;

namespace
{
// Deeper trees than this are refused: real mailboxes stay far below it, and a
// damaged file must not exhaust the stack.
const int max_depth = 300;

json item_to_json(const EWS_Item& item)
{
  json j;
  j["entry_id"] = item.id;
  j["change_key"] = item.change_key;
  j["display_name"] = item.display_name;
  j["subject"] = item.subject;
  j["type"] = static_cast<int>(item.type);
  j["ctime"] = static_cast<long long>(item.ctime);
  j["mtime"] = static_cast<long long>(item.mtime);
  return j;
}

json folder_to_json(const EWS_Folder& folder)
{
  json j;
  j["entry_id"] = folder.id;
  j["change_key"] = folder.change_key;
  j["name"] = folder.display_name;
  j["items_count"] = folder.items_count;
  j["subfolders_count"] = folder.subfolders_count;
  j["type"] = static_cast<int>(folder.type);
  j["subfolders"] = json::array();
  for (const EWS_Folder& sub : folder.subfolders)
    j["subfolders"].push_back(folder_to_json(sub));
  j["items"] = json::array();
  for (const EWS_Item& item : folder.items)
    j["items"].push_back(item_to_json(item));
  return j;
}

// Reading with a path for error texts ("folders[2].items[0].mtime").
class Reader
{
public:
  std::string error;

  bool string_at(const json& o, const char* key, const std::string& where, std::string& out)
  {
    const auto it = o.find(key);
    if (it == o.end() || !it->is_string())
      return fail(where + "." + key + " is missing or not a string");
    out = it->get<std::string>();
    return true;
  }

  bool integer_at(const json& o, const char* key, const std::string& where, long long low, long long high,
                  long long& out)
  {
    const auto it = o.find(key);
    if (it == o.end() || !it->is_number_integer())
      return fail(where + "." + key + " is missing or not an integer");
    out = it->get<long long>();
    if (out < low || out > high)
      return fail(where + "." + key + " is out of range");
    return true;
  }

  bool array_at(const json& o, const char* key, const std::string& where, const json*& out)
  {
    const auto it = o.find(key);
    if (it == o.end() || !it->is_array())
      return fail(where + "." + key + " is missing or not an array");
    out = &*it;
    return true;
  }

  bool item(const json& j, const std::string& where, EWS_Item& out)
  {
    long long type = 0, ctime = 0, mtime = 0;
    if (!j.is_object())
      return fail(where + " is not an object");
    if (!string_at(j, "entry_id", where, out.id) || !string_at(j, "change_key", where, out.change_key) ||
        !string_at(j, "display_name", where, out.display_name) || !string_at(j, "subject", where, out.subject) ||
        !integer_at(j, "type", where, EWS_ITEM_TYPE_ITEM, EWS_ITEM_TYPE_POSTITEM, type) ||
        !integer_at(j, "ctime", where, INT64_MIN, INT64_MAX, ctime) ||
        !integer_at(j, "mtime", where, INT64_MIN, INT64_MAX, mtime))
      return false;
    out.type = static_cast<EWS_Item_Type>(type);
    out.ctime = static_cast<time_t>(ctime);
    out.mtime = static_cast<time_t>(mtime);
    return true;
  }

  bool folder(const json& j, const std::string& where, int depth, EWS_Folder& out)
  {
    long long items_count = 0, subfolders_count = 0, type = 0;
    const json* subfolders = nullptr;
    const json* items = nullptr;
    if (depth > max_depth)
      return fail(where + " is nested too deeply");
    if (!j.is_object())
      return fail(where + " is not an object");
    if (!string_at(j, "entry_id", where, out.id) || !string_at(j, "change_key", where, out.change_key) ||
        !string_at(j, "name", where, out.display_name) ||
        !integer_at(j, "items_count", where, 0, INT32_MAX, items_count) ||
        !integer_at(j, "subfolders_count", where, 0, INT32_MAX, subfolders_count) ||
        !integer_at(j, "type", where, EWS_FOLDER_TYPE_FOLDER, EWS_FOLDER_TYPE_TASKS, type) ||
        !array_at(j, "subfolders", where, subfolders) || !array_at(j, "items", where, items))
      return false;
    out.items_count = static_cast<int>(items_count);
    out.subfolders_count = static_cast<int>(subfolders_count);
    out.type = static_cast<EWS_Folder_Type>(type);
    return folders(*subfolders, where + ".subfolders", depth + 1, out.subfolders) &&
           item_list(*items, where + ".items", out.items);
  }

  bool folders(const json& list, const std::string& where, int depth, EWS_Folders& out)
  {
    out.reserve(list.size());
    for (size_t i = 0; i < list.size(); ++i)
    {
      out.emplace_back();
      if (!folder(list[i], where + "[" + std::to_string(i) + "]", depth, out.back()))
        return false;
    }
    return true;
  }

  bool item_list(const json& list, const std::string& where, EWS_Items& out)
  {
    out.reserve(list.size());
    for (size_t i = 0; i < list.size(); ++i)
    {
      out.emplace_back();
      if (!item(list[i], where + "[" + std::to_string(i) + "]", out.back()))
        return false;
    }
    return true;
  }

  bool fail(const std::string& why)
  {
    error = why;
    return false;
  }
};
}  // namespace

namespace
{
// Version 2 names the transport that wrote the items; version 1 was always "ews".
bool read_transport(const json& doc, std::string& transport, Reader& reader)
{
  const auto it = doc.find("transport");
  if (it == doc.end() || !it->is_string() || (*it != "ews" && *it != "graph"))
    return reader.fail("transport is missing or not \"ews\" or \"graph\"");
  transport = it->get<std::string>();
  return true;
}
}  // namespace

bool dump_ews_folders(const EWS_Folders& folders, std::string& text, const std::vector<std::string>& failed_items,
                      const std::string& transport)
{
  json doc;
  doc["format_version"] = ews_folders_index_version;
  doc["transport"] = transport;
  doc["folders"] = json::array();
  for (const EWS_Folder& f : folders)
    doc["folders"].push_back(folder_to_json(f));
  doc["failed_items"] = failed_items;
  text = doc.dump(-1, ' ', false, json::error_handler_t::replace);
  return true;
}

bool load_ews_folders(const std::string& text, EWS_Folders& folders, std::vector<std::string>& failed_items,
                      std::string& error)
{
  std::string transport;
  return load_ews_folders(text, folders, failed_items, transport, error);
}

bool load_ews_folders(const std::string& text, EWS_Folders& folders, std::vector<std::string>& failed_items,
                      std::string& transport, std::string& error)
{
  folders.clear();
  failed_items.clear();
  transport = "ews";
  const json doc = json::parse(text, nullptr, false);
  Reader reader;
  long long version = 0;
  const json* list = nullptr;
  const json* failed = nullptr;
  if (doc.is_discarded() || !doc.is_object())
    reader.fail("not a JSON object (damaged or truncated)");
  else if (!reader.integer_at(doc, "format_version", "index", 0, INT32_MAX, version))
    ;
  else if (version != 1 && version != ews_folders_index_version)
    reader.fail("unknown format version " + std::to_string(version));
  else if (version >= 2 && !read_transport(doc, transport, reader))
    ;
  else if (reader.array_at(doc, "folders", "index", list) && reader.array_at(doc, "failed_items", "index", failed) &&
           reader.folders(*list, "folders", 0, folders))
  {
    for (size_t i = 0; i < failed->size(); ++i)
    {
      if (!(*failed)[i].is_string())
      {
        reader.fail("failed_items[" + std::to_string(i) + "] is not a string");
        break;
      }
      failed_items.push_back((*failed)[i].get<std::string>());
    }
  }
  if (!reader.error.empty())
  {
    folders.clear();
    failed_items.clear();
    error = reader.error;
    return false;
  }
  return true;
}

bool load_ews_folders(const std::string& text, EWS_Folders& folders)
{
  std::vector<std::string> failed_items;
  std::string error;
  if (load_ews_folders(text, folders, failed_items, error))
    return true;
  LOG_MSG(LM_ERROR, "Invalid mailbox index: %s\n", error.c_str());
  return false;
}
