#include "backup/exchange/job/exchange_backup_job_options.h"

#include "backup/exchange/core/ews/method_names.h"

Exchange_Backup_Job_Options::Exchange_Backup_Job_Options()
  : check_consisctency_(false),
    is_office365_(false),
    channels_(1),
    compression_level_(1),
    method_(EXCHANGE_BACKUP_METHOD_VSS),
    truncate_(true),
    compression_(COMPR_NONE)
{
}

int Exchange_Backup_Job_Options::generate(yajl_gen g)
{
  yajl_gen_map_open(g);
  if (const char* name = method_to_name(method_))
  {
    gen_json_key(g, "method");
    gen_json_string(g, name);
  }
  gen_json_key(g, "truncate");
  yajl_gen_bool(g, truncate_);
  if (const char* name = compression_value_to_name(compression_))
  {
    gen_json_key(g, "compression");
    gen_json_string(g, name);
  }
  gen_json_key(g, "compression_level");
  yajl_gen_integer(g, compression_level_);
  gen_json_key(g, "check_consistency");
  yajl_gen_bool(g, check_consisctency_);
  gen_json_key(g, "vss_provider");
  gen_json_string(g, vss_provider_);
  gen_json_key(g, "is_office365");
  yajl_gen_bool(g, is_office365_);
  gen_json_key(g, "channels");
  yajl_gen_integer(g, channels_);
  yajl_gen_map_close(g);
  return 0;
}
