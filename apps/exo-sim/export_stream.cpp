#include "apps/exo-sim/export_stream.h"

#include <algorithm>

#include "apps/exo-sim/base64_codec.h"

namespace exo_sim
{

void Export_Stream::add(Part part)
{
  part.start = size();
  if (part.length > 0)
    parts_.push_back(std::move(part));
}

void Export_Stream::add_text(const std::string& text)
{
  if (!parts_.empty() && !parts_.back().generated)
  {  // merge neighbouring text
    parts_.back().text += text;
    parts_.back().length += text.size();
    return;
  }
  Part p;
  p.text = text;
  p.length = text.size();
  add(std::move(p));
}

void Export_Stream::add_generated(uint64_t seed, const std::string& item_id, const Item_Meta& meta)
{
  Part p;
  p.generated = true;
  p.seed = seed;
  p.item_id = item_id;
  p.meta = meta;
  p.length = (Item_Blob::size(meta) + 2) / 3 * 4;
  add(std::move(p));
}

void Export_Stream::cut(uint64_t at, const std::string& tail)
{
  while (!parts_.empty() && parts_.back().start >= at)
    parts_.pop_back();
  if (!parts_.empty() && parts_.back().start + parts_.back().length > at)
  {
    Part& last = parts_.back();
    last.length = at - last.start;
    if (!last.generated)
      last.text.resize(size_t(last.length));
  }
  Part p;
  p.text = tail;
  p.length = tail.size();
  add(std::move(p));
}

uint64_t Export_Stream::size() const { return parts_.empty() ? 0 : parts_.back().start + parts_.back().length; }

void Export_Stream::read_base64(const Part& p, uint64_t from, size_t n, std::string& out) const
{
  // Base64 characters [from, from + n) come from the 3-byte groups that hold them.
  uint64_t first_group = from / 4, last_group = (from + n + 3) / 4;
  uint64_t blob_size = Item_Blob::size(p.meta);
  uint64_t byte_start = first_group * 3;
  uint64_t byte_end = std::min(blob_size, last_group * 3);
  std::string bytes(size_t(byte_end - byte_start), '\0');
  Item_Blob::read(p.seed, p.item_id, p.meta, byte_start, bytes.size(), &bytes[0]);
  std::string encoded = base64_encode(bytes);
  out.append(encoded, size_t(from - first_group * 4), n);
}

void Export_Stream::read(uint64_t offset, size_t n, std::string& out) const
{
  auto it =
    std::upper_bound(parts_.begin(), parts_.end(), offset, [](uint64_t off, const Part& p) { return off < p.start; });
  if (it != parts_.begin())
    --it;
  for (; it != parts_.end() && n > 0; ++it)
  {
    if (offset >= it->start + it->length)
      continue;
    uint64_t within = offset - it->start;
    size_t take = size_t(std::min<uint64_t>(n, it->length - within));
    if (it->generated)
      read_base64(*it, within, take, out);
    else
      out.append(it->text, size_t(within), take);
    offset += take;
    n -= take;
  }
}

}  // namespace exo_sim
