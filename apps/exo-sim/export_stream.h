#pragma once
// The body of an ExportItems response, produced as it is sent: literal text around the base64 of
// each item's data, where a generated item's data is made from its seed piece by piece. A 150 MB
// item therefore costs the simulator a chunk of memory, not the item and its base64 copy.
// Built by one thread, then read by the thread that sends it; read() is const and may be called
// for any range in any order.
#include <cstdint>
#include <string>
#include <vector>

#include "apps/exo-sim/item_blob.h"

namespace exo_sim
{

class Export_Stream
{
public:
  void add_text(const std::string& text);
  // The base64 of the generated blob of (seed, item_id, meta).
  void add_generated(uint64_t seed, const std::string& item_id, const Item_Meta& meta);

  // Ends the stream after `at` bytes with `tail` instead of the rest (a cut-off response).
  void cut(uint64_t at, const std::string& tail);

  uint64_t size() const;
  // Appends bytes [offset, offset + n) of the stream to `out` (fewer at the end).
  void read(uint64_t offset, size_t n, std::string& out) const;

private:
  struct Part
  {
    uint64_t start = 0;  // offset of the part in the stream
    uint64_t length = 0;
    std::string text;
    bool generated = false;
    uint64_t seed = 0;
    std::string item_id;
    Item_Meta meta;
  };
  void add(Part part);
  void read_base64(const Part& p, uint64_t from, size_t n, std::string& out) const;

  std::vector<Part> parts_;
};

}  // namespace exo_sim
