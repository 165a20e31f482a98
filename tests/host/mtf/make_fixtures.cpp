// Writes the fixture backup sets under the directory given as argument:
//   v1-plain, v1-zstd          good sets of format version 1
//   damaged-checksum           readme.txt's FILE block header checksum broken
//   damaged-truncated          data file cut inside readme.txt's data
//   damaged-length             Grüße.txt's data stream length changed (checksum fixed)
// Each holds host-1/def-1/set.1.* as the backup stream wrote it.

#include <cstdlib>
#include <iostream>

#include "host/mtf/fixture_tree.h"
#include "host/mtf/local_tree.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_format.h"
#include "host/mtf/mtf_set_catalog.h"

static bool make_set(const std::string& src, const std::string& out, bool zstd)
{
  Local_Backup_Factory factory;
  factory.record.root = src;
  MTF_Metadata md;
  md.set_agent("backup.exchange.linux-x86");
  MTF::Event_Handler handler;
  MTF_Backup b(md, handler, nullptr);
  b.pool_uuid("pool-1");
  b.pool_url("file://" + out);
  b.host_uuid("host-1");
  b.minor_resource_id("def-1");
  b.compression(compression_to_mtf(zstd ? COMPR_ZSTD : COMPR_NONE));
  b.seq(0);
  b.callback_factory(&factory);
  b.add_source("/data/", "/data/");
  return b.backup() == 0;
}

static const MTF_Set_Catalog::Entry* find(const MTF_Set_Catalog& c, const std::string& path)
{
  for (const auto& e : c.entries)
    if (e.path == path)
      return &e;
  return nullptr;
}

int main(int argc, char** argv)
{
  if (argc != 2)
  {
    std::cerr << "usage: make_mtf_fixtures DIR\n";
    return 2;
  }
  std::string dir = argv[1];
  std::string src = dir + "/.src";
  if (system(("rm -rf '" + dir + "' && mkdir -p '" + src + "/data/docs'").c_str()) != 0)
    return 1;
  for (const auto& f : fixture_tree())
    write_file(src + f.first, f.second);
  if (!make_set(src, dir + "/v1-plain", false) || !make_set(src, dir + "/v1-zstd", true))
    return 1;
  system(("rm -rf '" + src + "'").c_str());
  const std::string set = "/host-1/def-1/";
  MTF_Set_Catalog catalog;
  std::string error;
  if (!catalog.parse(read_file(dir + "/v1-plain" + set + "set.1.cat"), error))
    return 1;
  const MTF_Set_Catalog::Entry* readme = find(catalog, "/data/docs/readme.txt");
  const MTF_Set_Catalog::Entry* grusse = find(catalog,
                                              "/data/docs/Gr\xC3\xBC\xC3\x9F"
                                              "e.txt");
  std::string good = read_file(dir + "/v1-plain" + set + "set.1.0.mtf");
  for (const char* name : {"damaged-checksum", "damaged-truncated", "damaged-length"})
    system(("cp -r '" + dir + "/v1-plain' '" + dir + "/" + name + "'").c_str());

  std::string bad = good;
  bad[readme->offset + 12] ^= 0x01;  // displayable size: covered by the header checksum
  write_file(dir + "/damaged-checksum" + set + "set.1.0.mtf", bad);

  write_file(dir + "/damaged-truncated" + set + "set.1.0.mtf", good.substr(0, readme->offset + 130));

  bad = good;
  size_t stan = bad.find("STAN", grusse->offset);
  MTF_Format::put64(&bad[stan + 8], grusse->length + 1);
  MTF_Format::put16(&bad[stan + 20], MTF_Format::xor_checksum(bad.data() + stan, 10));
  write_file(dir + "/damaged-length" + set + "set.1.0.mtf", bad);
  return 0;
}
