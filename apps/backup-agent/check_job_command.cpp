#include "apps/backup-agent/check_job_command.h"

#include "host/job/job_options.h"

namespace
{
const char* type_name(Job_Definition_Type type)
{
  switch (type)
  {
  case JOB_DEFINITION_BACKUP:
    return "backup";
  case JOB_DEFINITION_RESTORE:
    return "restore";
  case JOB_DEFINITION_STANDBY:
    return "standby";
  default:
    return "none";
  }
}
}  // namespace

bool Check_Job_Command::read(const std::string& path, Job_Definition_var& def, std::ostream& err)
{
  Job_Definition_Reader reader(module_.parser_creators());
  if (!reader.read_file(path, def))
  {
    err << "error: " << path << ": " << reader.error() << "\n";
    return false;
  }
  return true;
}

void Check_Job_Command::print(const Job_Definition& def, std::ostream& out)
{
  out << "type: " << type_name(def.type()) << "\n";
  out << "id: " << def.id() << "\n";
  out << "uid: " << def.uid() << "\n";
  if (!def.name().empty())
    out << "name: " << def.name() << "\n";
  out << "host_id: " << def.host_id() << "\n";
  if (def.schedule() != nullptr)
    out << "schedule: " << Job_Schedule::type_name(def.schedule()->type()) << "\n";
  out << "target: pool " << def.target().id() << ", device " << def.target().device_id() << "\n";
  out << "max_seconds_retry: " << def.max_seconds_retry() << "\n";
  for (const Rate_Control_Entry& r : def.max_rate_limits())
    out << "rate_limit: " << r.start_time << "-" << r.end_time << " s, " << r.max_bytes_per_second << " bytes/s\n";
  if (def.options().get() != nullptr)
    out << "options: " << generate_json(*def.options()) << "\n";
  if (def.source().get() != nullptr)
    out << "source: " << generate_json(*def.source()) << "\n";
}

int Check_Job_Command::run(const std::string& path, std::ostream& out, std::ostream& err)
{
  Job_Definition_var def;
  if (!read(path, def, err))
    return 1;
  print(*def, out);
  if (def->type() != JOB_DEFINITION_BACKUP && def->type() != JOB_DEFINITION_RESTORE)
  {
    err << "error: " << path << ": the Exchange module runs no job of type " << type_name(def->type()) << "\n";
    return 1;
  }
  return 0;
}
