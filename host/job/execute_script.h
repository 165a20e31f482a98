#ifndef HOST_JOB_EXECUTE_SCRIPT_H
#define HOST_JOB_EXECUTE_SCRIPT_H

#include <ace/Log_Msg_Callback.h>
#include <memory>
#include <string>

// Runs a job's script text with /bin/sh -c and waits for it. Each line the
// script writes (standard output and error together) is logged: into `callback`
// (the job's log) when given, else through the ordinary log. True when the
// script exits with status 0; an empty script succeeds without running anything.
// `background` true starts the script and returns at once (true when it started);
// its output then goes nowhere.
bool execute_script(const std::string& script, bool background, std::shared_ptr<ACE_Log_Msg_Callback> callback);

#endif
