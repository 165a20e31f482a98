#include "apps/backup-agent/set_verifier.h"

#include "host/mtf/mtf_reader.h"
#include "host/mtf/mtf_sha256.h"
#include "host/storage/client_io_ex.h"

#include <iterator>
#include <map>
#include <set>

namespace
{
// What a FILE block of a data file held.
struct Held
{
  std::string path;
  uint64_t length = 0;
  std::string sha256;
};

std::string join(const std::vector<std::string>& parts, char separator)
{
  std::string out;
  for (const std::string& p : parts)
    out += separator + p;
  return out.empty() ? std::string(1, separator) : out;
}

std::string basename(const std::string& path, char separator)
{
  const size_t at = path.rfind(separator);
  return at == std::string::npos ? path : path.substr(at + 1);
}

std::string content_key(const std::string& path, uint64_t length, const std::string& sha256)
{
  return path + '\n' + std::to_string(length) + '\n' + sha256;
}
}  // namespace

bool Set_Verifier::read_catalog(const std::string& name, std::string& error)
{
  std::string text;
  if (!io_.get_contents(name, text))
  {
    error = "the catalog file " + name + " cannot be read (" + io_.last_error() + "); the set is incomplete";
    return false;
  }
  if (!catalog_.parse(text, error))
  {
    error = "the catalog file " + name + " is damaged: " + error;
    return false;
  }
  return true;
}

void Set_Verifier::check(const std::function<bool(const std::string& path)>& wanted, const Progress& progress)
{
  outcomes_.assign(catalog_.entries.size(), Outcome());
  problems_.clear();
  bytes_done_ = 0;
  for (uint32_t i = 0; i < catalog_.files.size(); ++i)
  {
    check_data_file(i, wanted, progress);
    bytes_done_ += catalog_.files[i].size;
  }
  // An entry naming a data file the header does not list is in no data file.
  for (size_t i = 0; i < catalog_.entries.size(); ++i)
  {
    const MTF_Set_Catalog::Entry& e = catalog_.entries[i];
    if (!e.dir && e.data >= catalog_.files.size() && wanted(e.path))
      outcomes_[i] = Outcome{MISSING, "its data file (number " + std::to_string(e.data) + ") is not in the set"};
  }
}

void Set_Verifier::check_data_file(uint32_t index, const std::function<bool(const std::string& path)>& wanted,
                                   const Progress& progress)
{
  const MTF_Set_Catalog::Data_File& data = catalog_.files[index];
  const bool compressed = catalog_.compression == "zstd";
  const char separator = catalog_.separator;

  // The wanted files of this data file by offset; `pending` until settled.
  std::map<uint64_t, size_t> at;
  for (size_t i = 0; i < catalog_.entries.size(); ++i)
  {
    const MTF_Set_Catalog::Entry& e = catalog_.entries[i];
    if (!e.dir && e.data == index && wanted(e.path))
      at[e.offset] = i;
  }
  if (at.empty())
    return;
  std::set<size_t> pending;
  for (const auto& a : at)
    pending.insert(a.second);
  auto settle = [&](size_t entry, State state, const std::string& reason)
  {
    outcomes_[entry] = Outcome{state, reason};
    pending.erase(entry);
  };

  uint64_t stored = 0;
  if (!io_.size(data.name, stored))
  {
    problems_.push_back(data.name + ": not in storage (" + io_.last_error() + ")");
    for (const auto& a : at)
      settle(a.second, MISSING, "its data file " + data.name + " is not in storage");
    return;
  }
  if (stored != data.stored)
    problems_.push_back(data.name + ": holds " + std::to_string(stored) + " bytes, the catalog says " +
                        std::to_string(data.stored));

  // Files held elsewhere than their catalog offset (or with other bytes there),
  // by path, length and SHA-256; matched against what is left at the end.
  std::multiset<std::string> elsewhere;
  std::map<size_t, std::string> other_bytes;
  std::map<uint32_t, std::string> dirs;
  std::map<uint64_t, std::string> damage;  // where reading failed, and why

  bool from_start = true;
  const MTF_Set_Catalog::Entry* target = nullptr;  // where reading starts again after damage
  for (;;)
  {
    const uint64_t start_stored = from_start ? 0 : compressed ? target->frame : target->offset;
    const uint64_t start_mtf = from_start ? 0 : compressed ? target->frame_base : target->offset;
    // A data file cut short holds nothing from its end on: no read is tried
    // there (the entries left are settled as damaged below).
    if (!from_start && start_stored >= stored)
      break;
    io_.close_read();
    std::string error;
    uint64_t block_at = start_mtf;
    bool ended = false;
    bool in_skip = false;
    bool give_up = false;  // nothing further of this file can be read
    if (!io_.open_read(data.name, start_stored))
    {
      // The storage client has retried already: further attempts at other
      // offsets would only wait as long again for each entry.
      error = "cannot be read at " + std::to_string(start_stored) + ": " + io_.last_error();
      give_up = true;
    }
    else
    {
      MTF_Reader reader([this](void* p, size_t n) { return io_.read(p, n); }, compressed, start_mtf);
      if (!from_start && !reader.skip_to(target->offset))
      {
        in_skip = true;
        block_at = target->offset;
      }
      while (!in_skip)
      {
        block_at = reader.position();
        if (reader.at_end())
        {
          if (reader.error().empty())
          {
            error = "offset " + std::to_string(block_at) + ": ends without an ESET block";
            give_up = true;
          }
          break;
        }
        MTF_Reader::Block block;
        if (!reader.read_block(block))
          break;
        const bool file = block.type == "FILE";
        if (block.type == "DIRB")
          dirs[block.dir_id] = join(block.directory, separator);
        else if (!file && block.type != "TAPE" && block.type != "SSET" && block.type != "VOLB" && block.type != "ESET")
        {
          error = "offset " + std::to_string(block.offset) + ": unexpected " + block.type + " block";
          break;
        }
        const auto here = at.find(block.offset);
        const MTF_Set_Catalog::Entry* expected = here == at.end() ? nullptr : &catalog_.entries[here->second];
        Held held;
        if (file)
        {
          const auto dir = dirs.find(block.dir_id);
          if (dir != dirs.end())
            held.path = dir->second == std::string(1, separator) ? dir->second + block.name
                                                                 : dir->second + separator + block.name;
          else if (expected != nullptr && basename(expected->path, separator) == block.name)
            held.path = expected->path;  // its DIRB lies before where reading started again
          else
            held.path = block.name;
        }
        const bool hash = file && wanted(held.path);
        MTF_Reader::Data_Digest streams;
        if (!reader.read_streams(hash, streams))
          break;
        held.length = streams.length;
        if (progress)
          progress(bytes_done_ + reader.position());
        if (block.type == "ESET")
        {
          if (!reader.at_end())
            error = reader.error().empty() ? "data after the ESET block" : reader.error();
          ended = error.empty();
          break;
        }
        if (!hash)
          continue;
        if (!streams.seen || held.length != block.display_size)
        {
          // The block is readable but not a whole file: its own damage only.
          if (expected != nullptr && pending.count(here->second))
            settle(here->second, DAMAGED,
                   data.name + " offset " + std::to_string(block.offset) + ": the FILE block's data stream " +
                     (streams.seen ? "holds " + std::to_string(held.length) + " bytes, the block says " +
                                       std::to_string(block.display_size)
                                   : std::string("is missing")));
          continue;
        }
        held.sha256 = streams.sha256;
        if (expected != nullptr && pending.count(here->second) && expected->path == held.path)
        {
          if (expected->length == held.length && expected->sha256 == held.sha256)
          {
            settle(here->second, SOUND, std::string());
            continue;
          }
          other_bytes[here->second] = "its bytes in " + data.name + " at offset " + std::to_string(block.offset) +
                                      " differ from its recorded SHA-256";
        }
        elsewhere.insert(content_key(held.path, held.length, held.sha256));
      }
      if (error.empty() && !ended)
        error = reader.error();
    }
    io_.close_read();
    if (ended)
      break;
    // Damage at `block_at`: the entry there (if any) is damaged; reading starts
    // again at the next pending entry after it.
    const std::string text = data.name + " " + error;
    damage.emplace(block_at, text);
    problems_.push_back(text);
    const auto hit = at.find(block_at);
    if (hit != at.end() && pending.count(hit->second))
      settle(hit->second, DAMAGED, text);
    // A zstd frame that cannot be decoded up to an entry holds nothing
    // readable after that point: its other entries need no further attempt.
    if (in_skip && compressed)
      for (const auto& a : at)
        if (a.first > block_at && pending.count(a.second) && catalog_.entries[a.second].frame == target->frame)
          settle(a.second, DAMAGED, text);
    target = nullptr;
    for (auto next = at.upper_bound(block_at); next != at.end() && target == nullptr; ++next)
      if (pending.count(next->second))
        target = &catalog_.entries[next->second];
    if (target == nullptr || give_up)
      break;
    from_start = false;
  }

  for (size_t entry : std::set<size_t>(pending))
  {
    const MTF_Set_Catalog::Entry& e = catalog_.entries[entry];
    const auto found = elsewhere.find(content_key(e.path, e.length, e.sha256));
    if (found != elsewhere.end())
    {
      elsewhere.erase(found);
      settle(entry, SOUND, std::string());
    }
    else if (other_bytes.count(entry))
      settle(entry, DAMAGED, other_bytes[entry]);
    else if (damage.upper_bound(e.offset) != damage.begin())
      settle(entry, DAMAGED, "unreadable: " + std::prev(damage.upper_bound(e.offset))->second);
    else
      settle(entry, MISSING, "not in " + data.name);
  }
}
