#include "host/job/job_schedule.h"

namespace
{
struct Schedule_Name
{
  const char* name;
  Job_Schedule::Type type;
};

const Schedule_Name schedule_names[] = {
  {"none", Job_Schedule::TYPE_NONE},
  {"once", Job_Schedule::TYPE_ONCE},
  {"hourly", Job_Schedule::TYPE_HOURLY},
  {"daily", Job_Schedule::TYPE_DAILY},
  {"weekly", Job_Schedule::TYPE_WEEKLY},
  {"monthly", Job_Schedule::TYPE_MONTHLY},
  {"continuous", Job_Schedule::TYPE_CONTINUOUS},
  {"ondemand", Job_Schedule::TYPE_ONDEMAND},
};
}  // namespace

bool Job_Schedule::type_from_name(const std::string& name, Type& out)
{
  for (const Schedule_Name& s : schedule_names)
    if (name == s.name)
    {
      out = s.type;
      return true;
    }
  return false;
}

const char* Job_Schedule::type_name(Type type)
{
  for (const Schedule_Name& s : schedule_names)
    if (s.type == type)
      return s.name;
  return "unknown";
}
