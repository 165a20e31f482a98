#include "host/job/job_log_callback.h"

#include <ace/Guard_T.h>
#include <ace/Log_Priority.h>
#include <ace/Log_Record.h>
#include <cstring>
#include <ctime>

Job_Log_Callback::Job_Log_Callback(const std::string& path)
  : path_(path), file_(path.empty() ? nullptr : std::fopen(path.c_str(), "ae"))
{
}

// Keeps the message without its "file:line: " prefix and final newline.
void Job_Log_Callback::remember_error(const char* text)
{
  std::string message = text;
  const size_t position_end = message.find(": ");
  if (position_end != std::string::npos && message.find(':') < position_end)
    message.erase(0, position_end + 2);
  while (!message.empty() && message.back() == '\n')
    message.pop_back();
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  last_error_ = message;
}

Job_Log_Callback::~Job_Log_Callback()
{
  if (file_ != nullptr)
    std::fclose(file_);
}

void Job_Log_Callback::log(ACE_Log_Record& record) { write(record.type(), record.msg_data()); }

std::string Job_Log_Callback::last_error() const
{
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  return last_error_;
}

void Job_Log_Callback::write(unsigned long priority, const char* text)
{
  if (text == nullptr)
    return;
  if (priority >= LM_ERROR)
    remember_error(text);
  if (file_ == nullptr)
    return;
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm tm;
  gmtime_r(&now, &tm);
  std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &tm);
  const char* name = ACE_Log_Record::priority_name(static_cast<ACE_Log_Priority>(priority));
  const size_t len = std::char_traits<char>::length(text);
  const bool newline = len > 0 && text[len - 1] == '\n';

  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  std::fprintf(file_, "%s %s %s%s", stamp, name + (std::strncmp(name, "LM_", 3) == 0 ? 3 : 0), text,
               newline ? "" : "\n");
  std::fflush(file_);
}
