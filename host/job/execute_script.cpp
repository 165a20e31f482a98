#include "host/job/execute_script.h"

#include "host/base/log.h"

#include <ace/Log_Record.h>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace
{
void log_line(const std::string& line, const std::shared_ptr<ACE_Log_Msg_Callback>& callback)
{
  if (!callback)
  {
    LOG_MSG(LM_INFO, "Script: %s\n", line.c_str());
    return;
  }
  const std::string text = "Script: " + line + "\n";
  ACE_Log_Record record(LM_INFO, ACE_Time_Value::zero, 0);
  record.msg_data(text.c_str());
  callback->log(record);
}

// Reads the script's output until it closes, logging whole lines.
void relay_output(int fd, const std::shared_ptr<ACE_Log_Msg_Callback>& callback)
{
  std::string pending;
  char buf[4096];
  for (;;)
  {
    const ssize_t n = ::read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    pending.append(buf, static_cast<size_t>(n));
    for (size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1))
      log_line(pending.substr(0, eol), callback);
  }
  if (!pending.empty())
    log_line(pending, callback);
}

int wait_exit_status(pid_t pid)
{
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0)
    if (errno != EINTR)
      return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}
}  // namespace

bool execute_script(const std::string& script, bool background, std::shared_ptr<ACE_Log_Msg_Callback> callback)
{
  if (script.empty())
    return true;

  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0)
  {
    LOG_MSG(LM_ERROR, "Failed to run script: pipe: %m\n");
    return false;
  }
  // A background script runs in a subshell that the wrapper shell leaves behind,
  // so nothing is left to reap here.
  const std::string text = background ? "(" + script + ") >/dev/null 2>&1 &" : script;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], 2);
  const char* argv[] = {"/bin/sh", "-c", text.c_str(), nullptr};
  pid_t pid = 0;
  const int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char* const*>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe_fds[1]);
  if (rc != 0)
  {
    ::close(pipe_fds[0]);
    errno = rc;
    LOG_MSG(LM_ERROR, "Failed to run script: %m\n");
    return false;
  }
  relay_output(pipe_fds[0], callback);
  ::close(pipe_fds[0]);
  const int status = wait_exit_status(pid);
  if (status != 0)
    LOG_MSG(LM_WARNING, "Script exited with status %d.\n", status);
  return status == 0;
}
