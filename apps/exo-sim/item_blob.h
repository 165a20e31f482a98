#pragma once
// The opaque export stream of a simulated item. Generated items have no stored data: their blob is
// derived from (seed, item id, item properties) whenever it is exported, byte for byte the same each
// time. The blob starts with the item's class, subject and times so that an uploaded copy of it
// shows the same properties in FindItem; the rest is pseudo-random filler up to the item's size.
#include <cstdint>
#include <string>

namespace exo_sim
{

struct Item_Meta
{
  std::string item_class = "IPM.Note";
  std::string subject;
  int64_t created = 0;  // seconds since the epoch, UTC
  int64_t modified = 0;
  int64_t size = 0;  // bytes of the exported blob
};

class Item_Blob
{
public:
  // The blob of `meta` for `item_id`; its length is max(meta.size, header length).
  static std::string make(uint64_t seed, const std::string& item_id, const Item_Meta& meta);
  // Bytes [offset, offset + n) of that blob, into `out` (which must hold n bytes), without
  // producing the rest: what large items are exported from.
  static void read(uint64_t seed, const std::string& item_id, const Item_Meta& meta, uint64_t offset, size_t n,
                   char* out);
  static uint64_t size(const Item_Meta& meta);

  // Reads the properties back from a blob made by make(); false for any other data (the caller
  // then treats the item as a message without subject). Sets meta.size to the blob's length.
  static bool parse(const std::string& blob, Item_Meta& meta);
};

// EWS element name (t:Message, t:CalendarItem, ...) for an item class.
const char* item_element_for_class(const std::string& item_class);

}  // namespace exo_sim
