#include "host/job/default_backup_job_source.h"

#include "host/job/job_options.h"

#include <cctype>

int Default_Backup_Job_Source::generate(yajl_gen g)
{
  yajl_gen_map_open(g);
  generate_identity(g);
  gen_json_key(g, "entries");
  yajl_gen_array_open(g);
  for (const std::string& e : entries_)
    gen_json_string(g, e);
  yajl_gen_array_close(g);
  yajl_gen_map_close(g);
  return 0;
}

bool Default_Backup_Job_Source::valid_entry(const std::string& entry)
{
  if (entry.size() <= ENTRY_PREFIX_LENGTH || entry.compare(8, 3, "://") != 0)
    return false;
  for (size_t i = 0; i < 8; ++i)
    if (!std::isalnum(static_cast<unsigned char>(entry[i])))
      return false;
  return true;
}
