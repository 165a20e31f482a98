#include "host/job/job_source.h"

#include "host/job/job_options.h"

void Job_Source::generate_identity(yajl_gen g) const
{
  gen_json_key(g, "id");
  gen_json_string(g, id_);
  if (!name_.empty())
  {
    gen_json_key(g, "name");
    gen_json_string(g, name_);
  }
}
