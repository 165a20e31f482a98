#ifndef TESTS_APPS_BACKUP_AGENT_AGENT_PROCESS_H
#define TESTS_APPS_BACKUP_AGENT_AGENT_PROCESS_H

// Runs the real backup-agent program (BACKUP_AGENT_PATH) without a shell: its
// standard input from a file, standard output and error each into a file of
// `dir`, read back when it has ended.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

struct Agent_Outcome
{
  int status = -1;  // exit status; -1 when it did not exit normally
  std::string out;
  std::string err;

  bool says(const std::string& text) const
  {
    return out.find(text) != std::string::npos || err.find(text) != std::string::npos;
  }
};

class Agent_Process
{
public:
  // Starts the agent; `dir` must exist, `name` names its output files there.
  Agent_Process(const std::vector<std::string>& args, const std::string& dir, const std::string& name,
                const std::string& input = "/dev/null")
    : out_path_(dir + "/" + name + ".out"), err_path_(dir + "/" + name + ".err")
  {
    std::vector<std::string> all{BACKUP_AGENT_PATH};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all)
      argv.push_back(&a[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
      throw std::runtime_error("cannot start backup-agent");
  }
  ~Agent_Process() { wait(); }
  Agent_Process(const Agent_Process&) = delete;
  Agent_Process& operator=(const Agent_Process&) = delete;

  Agent_Outcome wait()
  {
    if (pid_ > 0)
    {
      int raw = 0;
      ::waitpid(pid_, &raw, 0);
      pid_ = -1;
      outcome_.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
      outcome_.out = read(out_path_);
      outcome_.err = read(err_path_);
    }
    return outcome_;
  }

  // The process id while it runs (to signal it), -1 once waited for.
  pid_t pid() const { return pid_; }

  static std::string read(const std::string& path)
  {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

private:
  std::string out_path_;
  std::string err_path_;
  pid_t pid_ = -1;
  Agent_Outcome outcome_;
};

#endif
