#ifndef HOST_JOB_JOB_LOG_CALLBACK_H
#define HOST_JOB_JOB_LOG_CALLBACK_H

#include <ace/Log_Msg_Callback.h>
#include <ace/Thread_Mutex.h>
#include <cstdio>
#include <string>

// Appends log records to one job's log file, one line each:
// "2026-11-23T01:02:03Z ERROR file:line: message". Thread-safe: the job thread
// and the threads it starts may log at once.
class Job_Log_Callback : public ACE_Log_Msg_Callback
{
public:
  explicit Job_Log_Callback(const std::string& path);
  ~Job_Log_Callback() override;

  void log(ACE_Log_Record& record) override;

  // Appends one line of `priority` (an ACE priority) directly.
  void write(unsigned long priority, const char* text);

  const std::string& path() const { return path_; }
  bool is_open() const { return file_ != nullptr; }

private:
  std::string path_;
  FILE* file_;
  ACE_Thread_Mutex lock_;
};

#endif
