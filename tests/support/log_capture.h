#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>
#include <mutex>
#include <string>
#include <vector>

// Collects the log lines written by the current thread while it lives (they still
// go to stderr too).
class Log_Capture : public ACE_Log_Msg_Callback
{
public:
  Log_Capture()
    : had_flag_(ACE_LOG_MSG->flags() & ACE_Log_Msg::MSG_CALLBACK), previous_(ACE_LOG_MSG->msg_callback(this))
  {
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  ~Log_Capture() override
  {
    ACE_LOG_MSG->msg_callback(previous_);
    if (!had_flag_)
      ACE_LOG_MSG->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
  }

  void log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(lock_);
    lines_.emplace_back(record.msg_data());
    priorities_.push_back(record.type());
  }

  std::vector<std::string> lines() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return lines_;
  }

  // How many lines contain `text`.
  size_t count(const std::string& text) const
  {
    std::lock_guard<std::mutex> guard(lock_);
    size_t n = 0;
    for (const std::string& line : lines_)
      n += line.find(text) != std::string::npos;
    return n;
  }

  bool contains(const std::string& text) const { return count(text) > 0; }

  // Every line, joined.
  std::string text() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    std::string all;
    for (const std::string& line : lines_)
      all += line;
    return all;
  }

  // How many lines were logged with `priority` (LM_WARNING, ...).
  size_t count_at(unsigned long priority) const
  {
    std::lock_guard<std::mutex> guard(lock_);
    size_t n = 0;
    for (unsigned long p : priorities_)
      n += p == priority;
    return n;
  }

  // The priority of the first line containing `text`, or 0.
  unsigned long priority_of(const std::string& text) const
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (size_t i = 0; i < lines_.size(); ++i)
      if (lines_[i].find(text) != std::string::npos)
        return priorities_[i];
    return 0;
  }

private:
  bool had_flag_;
  ACE_Log_Msg_Callback* previous_;
  mutable std::mutex lock_;
  std::vector<std::string> lines_;
  std::vector<unsigned long> priorities_;
};

#endif
