#ifndef HOST_BASE_LOG_H
#define HOST_BASE_LOG_H

#include <ace/Log_Msg.h>

// Every log line carries its source position ("file:line: message"). Messages are
// printf-style texts that end in "\n". LM_DEBUG lines are developer traces;
// LM_INFO/LM_WARNING/LM_ERROR lines are what an administrator reads in the job log.
#define LOG_MSG(prio, fmt, ...) ACE_DEBUG((prio, ACE_TEXT("%N:%l: ") ACE_TEXT(fmt), ##__VA_ARGS__))

// A broken invariant: "Unexpected error in file:line, <condition>:" and a stack trace.
#define LOG_UNEXPECTED(condition) \
  ACE_DEBUG((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, ") ACE_TEXT(condition) ACE_TEXT(":\n%?\n")))

#endif
