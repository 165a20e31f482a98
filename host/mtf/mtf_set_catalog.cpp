#include "host/mtf/mtf_set_catalog.h"

#include <nlohmann/json.hpp>

#include "host/base/log.h"
#include "host/storage/pool_info.h"
#include "host/storage/storage_name.h"

using nlohmann::ordered_json;

std::string MTF_Set_Catalog::data_name(int rev, unsigned channel, bool compressed)
{
  return "set." + std::to_string(rev) + "." + std::to_string(channel) + (compressed ? ".mtf.zst" : ".mtf");
}

std::string MTF_Set_Catalog::catalog_name(int rev) { return "set." + std::to_string(rev) + ".cat"; }

std::string MTF_Set_Catalog::to_text() const
{
  ordered_json head;
  head["format"] = "mtf-set-catalog";
  head["version"] = version;
  head["rev"] = rev;
  head["agent"] = agent;
  head["compression"] = compression;
  head["separator"] = std::string(1, separator);
  head["block_size"] = 1024;
  head["created"] = created;
  ordered_json list = ordered_json::array();
  for (const Data_File& f : files)
    list.push_back({{"name", f.name}, {"size", f.size}, {"stored", f.stored}});
  head["files"] = list;
  std::string text = head.dump() + "\n";
  for (const Entry& e : entries)
  {
    ordered_json line;
    if (e.dir)
    {
      line["dir"] = e.path;
      line["data"] = e.data;
      line["offset"] = e.offset;
      line["mtime"] = e.mtime;
    }
    else
    {
      line["file"] = e.path;
      line["data"] = e.data;
      line["offset"] = e.offset;
      line["frame"] = e.frame;
      line["frame_base"] = e.frame_base;
      line["length"] = e.length;
      line["sha256"] = e.sha256;
      line["mtime"] = e.mtime;
    }
    // Paths are UTF-8 (the writer refuses anything else), so dump cannot throw.
    text += line.dump() + "\n";
  }
  text += ordered_json({{"entries", entries.size()}}).dump() + "\n";
  return text;
}

template <typename T>
static bool take(const ordered_json& obj, const char* key, T& out, std::string& error)
{
  auto it = obj.find(key);
  if (it == obj.end())
  {
    error = std::string("missing \"") + key + "\"";
    return false;
  }
  try
  {
    out = it->get<T>();
  }
  catch (const std::exception&)
  {
    error = std::string("\"") + key + "\" has the wrong type";
    return false;
  }
  return true;
}

bool MTF_Set_Catalog::parse(const std::string& text, std::string& error)
{
  *this = MTF_Set_Catalog();
  size_t start = 0;
  size_t line_no = 0;
  bool ended = false;
  while (start < text.size())
  {
    size_t end = text.find('\n', start);
    if (end == std::string::npos)
    {
      error = "line " + std::to_string(line_no + 1) + " is not ended";
      return false;
    }
    ordered_json line = ordered_json::parse(text.begin() + start, text.begin() + end, nullptr, false);
    start = end + 1;
    ++line_no;
    std::string why;
    if (!line.is_object())
      why = "not a JSON object";
    else if (ended)
      why = "text after the last line";
    else if (line_no == 1)
    {
      std::string format, sep;
      ordered_json list;
      if (take(line, "format", format, why) && take(line, "version", version, why) && take(line, "rev", rev, why) &&
          take(line, "agent", agent, why) && take(line, "compression", compression, why) &&
          take(line, "separator", sep, why) && take(line, "created", created, why) && take(line, "files", list, why))
      {
        if (format != "mtf-set-catalog")
          why = "not a backup-set catalog";
        else if (version != VERSION)
          why = "unknown catalog version " + std::to_string(version);
        else if (compression != "none" && compression != "zstd")
          why = "unknown compression \"" + compression + "\"";
        else if (sep.size() != 1)
          why = "bad separator";
        else if (!list.is_array())
          why = "\"files\" is not an array";
        else
        {
          separator = sep[0];
          for (const ordered_json& f : list)
          {
            Data_File file;
            if (!f.is_object() || !take(f, "name", file.name, why) || !take(f, "size", file.size, why) ||
                !take(f, "stored", file.stored, why))
            {
              if (why.empty())
                why = "bad data file";
              break;
            }
            if (!is_valid_storage_name(file.name))
            {
              why = "bad data file name";
              break;
            }
            files.push_back(file);
          }
        }
      }
    }
    else if (line.contains("entries"))
    {
      size_t count = 0;
      if (take(line, "entries", count, why) && count != entries.size())
        why = "holds " + std::to_string(entries.size()) + " entries, its last line says " + std::to_string(count);
      ended = true;
    }
    else
    {
      Entry e;
      e.dir = line.contains("dir");
      if (take(line, e.dir ? "dir" : "file", e.path, why) && take(line, "data", e.data, why) &&
          take(line, "offset", e.offset, why) && take(line, "mtime", e.mtime, why) &&
          (e.dir || (take(line, "frame", e.frame, why) && take(line, "frame_base", e.frame_base, why) &&
                     take(line, "length", e.length, why) && take(line, "sha256", e.sha256, why))))
      {
        if (e.data >= files.size())
          why = "entry names an unknown data file";
        else if (!e.dir && (e.sha256.size() != 64 || e.frame_base > e.offset))
          why = "bad file entry for '" + e.path + "'";
        else
          entries.push_back(e);
      }
    }
    if (!why.empty())
    {
      error = "line " + std::to_string(line_no) + ": " + why;
      return false;
    }
  }
  if (!ended)
  {
    error = "catalog is truncated (no last line)";
    return false;
  }
  return true;
}

bool MTF_Set_Catalog::locate(const std::string& pool_uuid, const std::string& pool_url, const std::string& host_uuid,
                             const std::string& minor_resource_id, int access, int max_seconds_retry,
                             Client_IO_Base::Options& options, std::string& location)
{
  if (!is_valid_storage_name(host_uuid) || !is_valid_storage_name(minor_resource_id) ||
      host_uuid.find('/') != std::string::npos || minor_resource_id.find('/') != std::string::npos)
  {
    LOG_MSG(LM_ERROR, "Invalid backup set location '%s/%s'\n", host_uuid.c_str(), minor_resource_id.c_str());
    return false;
  }
  std::string url = pool_url;
  if (url.empty())
  {
    Pool_Info info;
    if (!get_pool_info(pool_uuid, nullptr, info, access, max_seconds_retry, nullptr))
    {
      LOG_MSG(LM_ERROR, "Failed to get pool info, uuid = %s\n", pool_uuid.c_str());
      return false;
    }
    if (!set_options_by_pool(options, info))
    {
      LOG_MSG(LM_ERROR, "Failed to set IO options by pool, uuid = %s\n", pool_uuid.c_str());
      return false;
    }
    url = info.url;
  }
  while (!url.empty() && url.back() == '/')
    url.pop_back();
  location = url + "/" + host_uuid + "/" + minor_resource_id;
  return true;
}
