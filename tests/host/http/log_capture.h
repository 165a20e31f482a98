#ifndef TESTS_HOST_HTTP_LOG_CAPTURE_H
#define TESTS_HOST_HTTP_LOG_CAPTURE_H

// Collects the log lines the calling thread writes through ACE while it lives
// (they still go to stderr too).

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <mutex>
#include <string>
#include <vector>

class Log_Capture : public ACE_Log_Msg_Callback
{
public:
  Log_Capture()
  {
    ACE_Log_Msg* log = ACE_LOG_MSG;
    had_flag_ = log->flags() & ACE_Log_Msg::MSG_CALLBACK;
    previous_ = log->msg_callback(this);
    log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  ~Log_Capture() override
  {
    ACE_Log_Msg* log = ACE_LOG_MSG;
    log->msg_callback(previous_);
    if (!had_flag_)
      log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
  }

  void log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.push_back(record.msg_data());
    priorities_.push_back(record.type());
  }

  std::string text() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    std::string all;
    for (const std::string& l : lines_)
      all += l;
    return all;
  }

  bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }

  // Lines logged with `priority` (LM_WARNING, ...).
  size_t count(unsigned long priority) const
  {
    std::lock_guard<std::mutex> guard(lock_);
    size_t n = 0;
    for (unsigned long p : priorities_)
      n += p == priority;
    return n;
  }

private:
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
  std::vector<unsigned long> priorities_;
  ACE_Log_Msg_Callback* previous_ = nullptr;
  bool had_flag_ = false;
};

#endif
