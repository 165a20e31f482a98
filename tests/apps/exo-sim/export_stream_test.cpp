// Export bodies produced piece by piece, and the large profile's item sizes.
#include <gtest/gtest.h>

#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/export_stream.h"
#include "sim_harness.h"

using namespace exo_sim_test;

TEST(ExoSimExportStream, AnyRangeMatchesTheWholeBody)
{
  exo_sim::Item_Meta a, b;
  a.subject = "first";
  a.size = 300001;  // not a multiple of 3: the base64 ends in padding
  b.item_class = "IPM.Appointment";
  b.size = 70000;
  exo_sim::Export_Stream stream;
  stream.add_text("<head>");
  stream.add_generated(7, "item-a", a);
  stream.add_text("</a><b>");
  stream.add_generated(7, "item-b", b);
  stream.add_text("</tail>");
  std::string whole = "<head>" + exo_sim::base64_encode(exo_sim::Item_Blob::make(7, "item-a", a)) + "</a><b>" +
                      exo_sim::base64_encode(exo_sim::Item_Blob::make(7, "item-b", b)) + "</tail>";
  ASSERT_EQ(stream.size(), whole.size());
  std::string all;
  stream.read(0, size_t(stream.size()) + 100, all);
  EXPECT_TRUE(all == whole);
  // Ranges that start and end inside 4-character groups, across parts, and past the end.
  const uint64_t starts[] = {0, 1, 5, 6, 7, 9, 400001, 400003, whole.size() - 3};
  for (uint64_t start : starts)
    for (size_t n : {size_t(1), size_t(2), size_t(5), size_t(65537)})
    {
      std::string piece;
      stream.read(start, n, piece);
      EXPECT_TRUE(piece == whole.substr(size_t(start), n)) << start << "+" << n;
    }
  // Pieces read in order add up to the body, as the server sends it.
  std::string pieces;
  for (uint64_t off = 0; off < stream.size(); off += 4099)
    stream.read(off, 4099, pieces);
  EXPECT_TRUE(pieces == whole);

  stream.cut(100000, "|cut");
  std::string cut;
  stream.read(0, 1 << 20, cut);
  EXPECT_TRUE(cut == whole.substr(0, 100000) + "|cut");
}

TEST(ExoSimExportStream, LargeProfileSpreadsItemsFrom25To150MiB)
{
  exo_sim::Sim_Options o = tiny_options();
  ASSERT_TRUE(exo_sim::data_profile_preset("large", o.profile));
  o.profile.mailboxes = 1;
  o.profile.depth = 0;
  o.profile.renamed_users = 0;
  Sim_Fixture sim(o);
  std::string folder = folder_id_by_name(sim, "Large items");
  ASSERT_FALSE(folder.empty());
  Soap_Doc d;
  parse_soap(sim
               .ews("<m:FindItem Traversal=\"Shallow\"><m:ItemShape><t:BaseShape>IdOnly</t:BaseShape>"
                    "<t:AdditionalProperties><t:FieldURI FieldURI=\"item:Size\"/></t:AdditionalProperties>"
                    "</m:ItemShape><m:ParentFolderIds>" +
                    folder_id(folder) + "</m:ParentFolderIds></m:FindItem>")
               .body,
             d);
  auto sizes = d.all(T, "Size");
  ASSERT_EQ(sizes.size(), 4u);
  const long long mib = 1024 * 1024;
  EXPECT_EQ(std::stoll(sizes[0].text().get()), 150 * mib);
  long long smallest = 150 * mib;
  for (const auto& s : sizes)
  {
    long long v = std::stoll(s.text().get());
    EXPECT_GE(v, 25 * mib);
    EXPECT_LE(v, 150 * mib);
    smallest = std::min(smallest, v);
  }
  EXPECT_LT(smallest, 26 * mib);
}
