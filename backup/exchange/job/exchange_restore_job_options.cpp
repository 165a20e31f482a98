#include "backup/exchange/job/exchange_restore_job_options.h"

Exchange_Restore_Job_Options::Exchange_Restore_Job_Options()
  : channels_(1), is_office365_(false), auto_mount_(true), overwrite_(false)
{
}

int Exchange_Restore_Job_Options::generate(yajl_gen g)
{
  yajl_gen_map_open(g);
  if (!relocation_.empty())
  {
    gen_json_key(g, "relocation");
    gen_json_string(g, relocation_);
  }
  gen_json_key(g, "auto_mount");
  yajl_gen_bool(g, auto_mount_);
  gen_json_key(g, "is_office365");
  yajl_gen_bool(g, is_office365_);
  gen_json_key(g, "overwrite");
  yajl_gen_bool(g, overwrite_);
  gen_json_key(g, "channels");
  yajl_gen_integer(g, channels_);
  yajl_gen_map_close(g);
  return 0;
}
