#include "apps/exo-sim/item_blob.h"

#include <cstring>
#include <string>

#include <nlohmann/json.hpp>

#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

namespace
{
// The first eight bytes match the opening of the export streams in Microsoft's samples.
const char k_lead[8] = {1, 0, 0, 0, 8, 0, 0, 0};
const char k_magic[8] = {'E', 'X', 'O', 'S', 'I', 'M', '1', '\n'};

bool starts_with(const std::string& s, const std::string& prefix) { return s.compare(0, prefix.size(), prefix) == 0; }
}  // namespace

namespace
{

std::string blob_head(const Item_Meta& meta)
{
  nlohmann::ordered_json head;
  head["class"] = meta.item_class;
  head["subject"] = meta.subject;
  head["created"] = meta.created;
  head["modified"] = meta.modified;
  std::string json = head.dump();
  std::string out(k_lead, sizeof k_lead);
  out.append(k_magic, sizeof k_magic);
  uint32_t n = static_cast<uint32_t>(json.size());
  for (int k = 0; k < 4; ++k)
    out += char((n >> (8 * k)) & 0xff);
  return out + json;
}

}  // namespace

uint64_t Item_Blob::size(const Item_Meta& meta)
{
  uint64_t head = blob_head(meta).size();
  uint64_t want = meta.size > 0 ? uint64_t(meta.size) : 0;
  return want > head ? want : head;
}

std::string Item_Blob::make(uint64_t seed, const std::string& item_id, const Item_Meta& meta)
{
  std::string out(static_cast<size_t>(size(meta)), '\0');
  read(seed, item_id, meta, 0, out.size(), &out[0]);
  return out;
}

void Item_Blob::read(uint64_t seed, const std::string& item_id, const Item_Meta& meta, uint64_t offset, size_t n,
                     char* out)
{
  std::string head = blob_head(meta);
  size_t done = 0;
  for (; done < n && offset + done < head.size(); ++done)
    out[done] = head[size_t(offset + done)];
  // The filler: the 8 little-endian bytes of mix64(base, block) for each 8-byte block after the head.
  uint64_t base = mix64(seed, hash_text(item_id));
  while (done < n)
  {
    uint64_t pos = offset + done - head.size();
    uint64_t v = mix64(base, pos / 8);
    for (size_t k = size_t(pos % 8); k < 8 && done < n; ++k)
      out[done++] = char((v >> (8 * k)) & 0xff);
  }
}

bool Item_Blob::parse(const std::string& blob, Item_Meta& meta)
{
  std::string prefix = std::string(k_lead, sizeof k_lead) + std::string(k_magic, sizeof k_magic);
  if (blob.size() < prefix.size() + 4 || !starts_with(blob, prefix))
    return false;
  uint32_t n = 0;
  for (int k = 0; k < 4; ++k)
    n |= uint32_t(uint8_t(blob[prefix.size() + k])) << (8 * k);
  size_t at = prefix.size() + 4;
  if (n > blob.size() - at)
    return false;
  auto head = nlohmann::ordered_json::parse(blob.substr(at, n), nullptr, false);
  if (head.is_discarded() || !head.is_object())
    return false;
  if (!head.contains("class") || !head["class"].is_string() || !head.contains("subject") ||
      !head["subject"].is_string() || !head.contains("created") || !head["created"].is_number_integer() ||
      !head.contains("modified") || !head["modified"].is_number_integer())
    return false;
  meta.item_class = head["class"].get<std::string>();
  meta.subject = head["subject"].get<std::string>();
  meta.created = head["created"].get<int64_t>();
  meta.modified = head["modified"].get<int64_t>();
  meta.size = static_cast<int64_t>(blob.size());
  return true;
}

const char* item_element_for_class(const std::string& c)
{
  auto is = [&c](const char* prefix)
  {
    size_t n = std::strlen(prefix);
    return c.compare(0, n, prefix) == 0 && (c.size() == n || c[n] == '.');
  };
  if (is("IPM.Appointment"))
    return "CalendarItem";
  if (is("IPM.Contact"))
    return "Contact";
  if (is("IPM.DistList"))
    return "DistributionList";
  if (is("IPM.Schedule.Meeting.Request"))
    return "MeetingRequest";
  if (is("IPM.Schedule.Meeting.Resp"))
    return "MeetingResponse";
  if (is("IPM.Schedule.Meeting.Canceled"))
    return "MeetingCancellation";
  if (is("IPM.Schedule.Meeting"))
    return "MeetingMessage";
  if (is("IPM.Task"))
    return "Task";
  if (is("IPM.Post"))
    return "PostItem";
  if (is("IPM.Note"))
    return "Message";
  return "Item";
}

}  // namespace exo_sim
