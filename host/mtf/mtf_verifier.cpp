#include "host/mtf/mtf_verifier.h"

#include <map>

#include "host/mtf/mtf_sha256.h"
#include "host/storage/client_io_ex.h"

static std::string join(const std::vector<std::string>& parts, char sep)
{
  std::string out;
  for (const std::string& p : parts)
    out += sep + p;
  return out.empty() ? std::string(1, sep) : out;
}

bool MTF_Verifier::check_data_file(MTF_Reader::Source source, bool compressed, const std::string& name,
                                   std::vector<File>& files, std::vector<std::string>& directories, std::string& error)
{
  MTF_Reader reader(std::move(source), compressed);
  std::map<uint32_t, std::string> dirs;
  std::string current_dir;
  const char* expected_start[] = {"TAPE", "SSET", "VOLB"};
  uint64_t sset_offset = 0;
  std::string where;  // the path of the block being read, for messages
  for (size_t index = 0;; ++index)
  {
    where.clear();
    if (reader.at_end())
    {
      if (!reader.error().empty())
        break;
      error = name + ": ends without an ESET block";
      return false;
    }
    MTF_Reader::Block block;
    if (!reader.read_block(block))
      break;
    if (index < 3 && block.type != expected_start[index])
    {
      error = name + " offset " + std::to_string(block.offset) + ": " + block.type + " where " + expected_start[index] +
              " belongs";
      return false;
    }
    if (block.type == "SSET")
      sset_offset = block.offset;
    if (index > 0 && block.logical_address != (block.offset - sset_offset) / 1024)
    {
      error = name + " offset " + std::to_string(block.offset) + ": wrong format logical address";
      return false;
    }
    if (index >= 3 && block.type != "DIRB" && block.type != "FILE" && block.type != "ESET")
    {
      error = name + " offset " + std::to_string(block.offset) + ": unexpected " + block.type + " block";
      return false;
    }
    where.clear();
    if (block.type == "DIRB")
    {
      current_dir = join(block.directory, separator_);
      dirs[block.dir_id] = current_dir;
      directories.push_back(current_dir);
    }
    File file;
    if (block.type == "FILE")
    {
      auto it = dirs.find(block.dir_id);
      if (it == dirs.end())
      {
        error = name + " offset " + std::to_string(block.offset) + ": FILE '" + block.name +
                "' before any DIRB of its directory";
        return false;
      }
      file.path =
        it->second == std::string(1, separator_) ? it->second + block.name : it->second + separator_ + block.name;
      file.offset = block.offset;
      where = " ('" + file.path + "')";
    }
    // Streams up to the SPAD that ends the block.
    MTF_Reader::Data_Digest data;
    if (!reader.read_streams(block.type == "FILE", data))
      break;
    file.length = data.length;
    if (block.type == "FILE")
    {
      if (!data.seen)
      {
        error = name + " offset " + std::to_string(block.offset) + where + ": FILE without a data stream";
        return false;
      }
      if (file.length != block.display_size)
      {
        error = name + " offset " + std::to_string(block.offset) + where + ": data stream holds " +
                std::to_string(file.length) + " bytes, the FILE block says " + std::to_string(block.display_size);
        return false;
      }
      file.sha256 = data.sha256;
      files.push_back(file);
    }
    if (block.type == "ESET")
    {
      if (!reader.at_end())
      {
        error = reader.error().empty() ? name + ": data after the ESET block" : name + " " + reader.error();
        return false;
      }
      return true;
    }
  }
  error = name + " " + reader.error() + where;
  return false;
}

bool MTF_Verifier::check_set(Client_IO_Ex& io, int rev, std::vector<std::string>& errors)
{
  std::string text;
  std::string catalog_name = MTF_Set_Catalog::catalog_name(rev);
  if (!io.get_contents(catalog_name, text))
  {
    errors.push_back(catalog_name + ": missing, the set is incomplete (" + io.last_error() + ")");
    return false;
  }
  MTF_Set_Catalog catalog;
  std::string error;
  if (!catalog.parse(text, error))
  {
    errors.push_back(catalog_name + ": " + error);
    return false;
  }
  separator_ = catalog.separator;
  size_t before = errors.size();
  for (uint32_t i = 0; i < catalog.files.size(); ++i)
  {
    const MTF_Set_Catalog::Data_File& data = catalog.files[i];
    std::map<uint64_t, const MTF_Set_Catalog::Entry*> expected;
    for (const MTF_Set_Catalog::Entry& e : catalog.entries)
      if (!e.dir && e.data == i)
        expected[e.offset] = &e;
    std::vector<File> files;
    std::vector<std::string> dirs;
    bool ok = io.open_read(data.name, 0);
    if (ok)
      ok = check_data_file([&io](void* p, size_t n) { return io.read(p, n); }, catalog.compression == "zstd", data.name,
                           files, dirs, error);
    else
      error = data.name + ": " + io.last_error();
    io.close_read();
    if (!ok)
    {
      // Name the catalog path the damage falls in: the last entry at or before
      // the offset the reader stopped at.
      size_t at = error.find("offset ");
      if (at != std::string::npos && error.find("('") == std::string::npos)
      {
        uint64_t offset = std::stoull(error.substr(at + 7));
        auto it = expected.upper_bound(offset);
        if (it != expected.begin())
          error += " (in or after '" + std::prev(it)->second->path + "')";
      }
      errors.push_back(error);
    }
    for (const File& f : files)
    {
      auto it = expected.find(f.offset);
      if (it == expected.end())
        continue;  // left out of the catalog: a file whose reader failed
      const MTF_Set_Catalog::Entry& e = *it->second;
      if (e.path != f.path)
        errors.push_back(data.name + " offset " + std::to_string(f.offset) + ": holds '" + f.path +
                         "', the catalog says '" + e.path + "'");
      else if (e.length != f.length || e.sha256 != f.sha256)
        errors.push_back("'" + e.path + "' in " + data.name + ": data does not match the catalog");
      expected.erase(it);
    }
    for (const auto& left : expected)
      errors.push_back("'" + left.second->path + (ok ? "' not found in " : "' unreadable in damaged ") + data.name +
                       " at offset " + std::to_string(left.first));
  }
  return errors.size() == before;
}
