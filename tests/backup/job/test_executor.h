#ifndef TESTS_BACKUP_JOB_TEST_EXECUTOR_H
#define TESTS_BACKUP_JOB_TEST_EXECUTOR_H

#include "backup/job/job_executor_t.h"
#include "host/job/job_options.h"
#include "host/job/job_source.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A source and options of no interest but their existence.
struct Test_Source : Job_Source
{
  int generate(yajl_gen) override { return 0; }
};
struct Test_Options : Job_Options
{
  int generate(yajl_gen) override { return 0; }
};

// What a test executor did, and what it is told to answer. One script at a time.
struct Executor_Script
{
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> events;  // executor calls and handler events, in order
  bool active = true;
  bool condition = true;
  bool main_result = true;
  bool others_result = true;  // what remove/update/... answer
  bool block = false;         // execute_i waits for release() or a cancel
  bool released = false;
  bool saw_null_opts = false;
  std::thread::id thread;

  static Executor_Script& current()
  {
    static Executor_Script script;
    return script;
  }
  void reset()
  {
    std::lock_guard<std::mutex> guard(lock);
    events.clear();
    active = condition = main_result = others_result = true;
    block = released = saw_null_opts = false;
  }
  void record(const std::string& event)
  {
    std::lock_guard<std::mutex> guard(lock);
    events.push_back(event);
    thread = std::this_thread::get_id();
    changed.notify_all();
  }
  std::vector<std::string> recorded()
  {
    std::lock_guard<std::mutex> guard(lock);
    return events;
  }
  bool wait_for(const std::string& event)
  {
    std::unique_lock<std::mutex> guard(lock);
    return changed.wait_for(guard, std::chrono::seconds(20),
                            [&]
                            {
                              for (const std::string& e : events)
                                if (e == event)
                                  return true;
                              return false;
                            });
  }
  void release()
  {
    std::lock_guard<std::mutex> guard(lock);
    released = true;
    changed.notify_all();
  }
};

// Records the outcome the executor template reports.
class Recording_Handler
{
public:
  explicit Recording_Handler(Job&) {}
  int handle_start_job() { return note("start"); }
  int handle_success() { return note("success"); }
  int handle_failure(int, const char*, ...) { return note("failure"); }
  int handle_canceled() { return note("canceled"); }

private:
  int note(const char* e)
  {
    Executor_Script::current().record(e);
    return 0;
  }
};

class Test_Executor : public Job_Executor_T<Test_Source, Test_Options, Recording_Handler>
{
public:
  explicit Test_Executor(Job& job) : Job_Executor_T<Test_Source, Test_Options, Recording_Handler>(job) {}

  bool remove() override { return answer("remove"); }
  bool setup_ondemand() override { return answer("setup_ondemand"); }
  bool remove_ondemand() override { return answer("remove_ondemand"); }
  bool update(Job_Definition_var) override { return answer("update"); }
  bool rollback() override { return answer("rollback"); }
  bool check_condition() override
  {
    script().record("check_condition");
    return script().condition;
  }
  bool is_active(const Action_Options*) override { return script().active; }

  bool execute_i(const Action_Options* opts) override
  {
    Executor_Script& s = script();
    s.saw_null_opts = opts == nullptr;
    s.record("execute_i");
    if (s.block)
    {
      // Cooperative cancel: give up as soon as the activity says so.
      std::unique_lock<std::mutex> guard(s.lock);
      while (!s.released && act_.state != JOB_STATE_CANCELING)
        s.changed.wait_for(guard, std::chrono::milliseconds(10));
      if (act_.state == JOB_STATE_CANCELING)
        return false;
    }
    return s.main_result;
  }

private:
  static Executor_Script& script() { return Executor_Script::current(); }
  bool answer(const std::string& event)
  {
    script().record(event);
    return script().others_result;
  }
};

// A definition whose source and options are the test's own.
inline Job_Definition_var make_test_definition(bool on_demand = false)
{
  Job_Definition_var def(new Job_Definition());
  def->type(JOB_DEFINITION_BACKUP);
  def->uid("6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d");
  def->id("test-job");
  def->source(Job_Source_var(new Test_Source()));
  def->options(Job_Options_var(new Test_Options()));
  if (on_demand)
    def->schedule(Job_Schedule(Job_Schedule::TYPE_ONDEMAND));
  return def;
}

#endif
