#ifndef HOST_JOB_JOB_SCHEDULE_H
#define HOST_JOB_JOB_SCHEDULE_H

#include <string>

// When a job definition runs. The agent runs jobs when asked; the schedule type
// still matters to the module: on-demand jobs get set up and torn down with their
// definition.
class Job_Schedule
{
public:
  enum Type
  {
    TYPE_NONE = 0,
    TYPE_ONCE = 1,
    TYPE_HOURLY = 2,
    TYPE_DAILY = 3,
    TYPE_WEEKLY = 4,
    TYPE_MONTHLY = 5,
    TYPE_CONTINUOUS = 6,
    TYPE_ONDEMAND = 7,
  };

  explicit Job_Schedule(Type type = TYPE_NONE) : type_(type) {}

  Type type() const { return type_; }
  void type(Type t) { type_ = t; }

  // "ondemand", "daily", ... ; false for an unknown name.
  static bool type_from_name(const std::string& name, Type& out);
  static const char* type_name(Type type);

private:
  Type type_;
};

#endif
