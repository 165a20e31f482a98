#ifndef BENCH_AGENT_RUN_H
#define BENCH_AGENT_RUN_H

// Runs the agent program (BACKUP_AGENT_PATH) once for a benchmark: standard
// output into a file, standard error beside it (".err"), timed from the spawn to
// the exit, with the process's peak RSS and its --json summary.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

inline double bench_now()
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Agent_Run
{
  bool ok = false;  // exit status 0 and a JSON summary
  double seconds = 0;
  long rss_mib = 0;
  nlohmann::json summary;
};

// `args` follow the program's name; `out` names the output files.
inline Agent_Run run_agent(const std::vector<std::string>& args, const std::string& out)
{
  std::vector<std::string> all{BACKUP_AGENT_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all)
    argv.push_back(&a[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (out + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  Agent_Run run;
  const double start = bench_now();
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0)
    return run;
  int status = 0;
  struct rusage usage = {};
  ::wait4(pid, &status, 0, &usage);
  run.seconds = bench_now() - start;
  run.rss_mib = usage.ru_maxrss / 1024;
  std::ifstream in(out);
  run.summary = nlohmann::json::parse(in, nullptr, false);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || run.summary.is_discarded())
  {
    std::fprintf(stderr, "backup-agent failed (status %d), see %s.err\n", status, out.c_str());
    return run;
  }
  run.ok = true;
  return run;
}

#endif
