#ifndef HOST_JOB_JOB_LOG_CALLBACK_H
#define HOST_JOB_JOB_LOG_CALLBACK_H

#include <ace/Log_Msg_Callback.h>
#include <ace/Thread_Mutex.h>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

// Appends log records to one job's log file, one line each:
// "2026-11-23T01:02:03Z ERROR file:line: message", and remembers the last error.
// With an empty path nothing is written but the last error is still kept.
// Thread-safe: the job thread and the threads it starts may log at once.
class Job_Log_Callback : public ACE_Log_Msg_Callback
{
public:
  explicit Job_Log_Callback(const std::string& path);
  ~Job_Log_Callback() override;

  void log(ACE_Log_Record& record) override;

  // Appends one line of `priority` (an ACE priority) directly.
  void write(unsigned long priority, const char* text);

  // The text of the last error (LM_ERROR or worse) logged through this callback,
  // without its source position: what a failed run reports as its reason.
  std::string last_error() const;

  // Where the job's streams report the files and bytes they have done so far (the
  // job sets it to its activity record); the stream reaches the job only through
  // this callback. May be called from several threads; figures only grow.
  typedef std::function<void(uint64_t files, uint64_t bytes)> Progress_Sink;
  void set_progress_sink(Progress_Sink sink) { progress_sink_ = std::move(sink); }
  void report_progress(uint64_t files, uint64_t bytes) const
  {
    if (progress_sink_)
      progress_sink_(files, bytes);
  }

  const std::string& path() const { return path_; }
  bool is_open() const { return file_ != nullptr; }

private:
  void remember_error(const char* text);

  std::string path_;
  FILE* file_;
  std::string last_error_;
  Progress_Sink progress_sink_;
  mutable ACE_Thread_Mutex lock_;
};

#endif
