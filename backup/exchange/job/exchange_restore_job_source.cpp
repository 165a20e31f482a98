#include "backup/exchange/job/exchange_restore_job_source.h"

#include "host/job/job_options.h"

int Exchange_Restore_Job_Source::generate(yajl_gen g)
{
  yajl_gen_map_open(g);
  generate_identity(g);
  gen_json_key(g, "catalog_id");
  gen_json_string(g, catalog_id_);
  gen_json_key(g, "original");
  gen_json_string(g, original_);
  gen_json_key(g, "restore_as");
  gen_json_string(g, restore_as_);
  gen_json_key(g, "storages");
  yajl_gen_array_open(g);
  for (const std::string& s : storages_)
    gen_json_string(g, s);
  yajl_gen_array_close(g);
  yajl_gen_map_close(g);
  return 0;
}
