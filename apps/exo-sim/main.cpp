// exo-sim: serves a simulated Exchange Online (token endpoint, Graph users, EWS) on a loopback
// port until SIGTERM or SIGINT. See docs/exo-sim.md.
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "apps/exo-sim/sim_options.h"
#include "apps/exo-sim/sim_server.h"

namespace
{

std::FILE* open_log(const std::string& path)
{
  if (path.empty())
    return stderr;
  if (path == "-")
    return stdout;
  return std::fopen(path.c_str(), "a");
}

}  // namespace

int main(int argc, char** argv)
{
  exo_sim::Sim_Options options;
  std::string error;
  if (!exo_sim::parse_sim_options(argc, argv, options, error))
  {
    if (error != "help")
      std::fprintf(stderr, "exo-sim: %s\n", error.c_str());
    std::fputs(exo_sim::sim_usage(), stderr);
    return error == "help" ? 0 : 2;
  }
  std::FILE* log = open_log(options.request_log);
  if (!log)
  {
    std::fprintf(stderr, "exo-sim: cannot open request log %s\n", options.request_log.c_str());
    return 1;
  }
  // Block the stop signals in every thread; one thread waits for them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  exo_sim::Sim_Server server(options, log);
  if (!server.load_state(error))
  {
    std::fprintf(stderr, "exo-sim: cannot load state: %s\n", error.c_str());
    return 1;
  }
  int port = server.bind();
  if (port <= 0)
  {
    std::fprintf(stderr, "exo-sim: cannot bind %s:%d\n", options.listen.c_str(), options.port);
    return 1;
  }
  std::printf("listening on %s:%d\n", options.listen.c_str(), port);
  std::fflush(stdout);

  std::thread waiter(
    [&server, stop_signals]
    {
      int sig = 0;
      sigwait(&stop_signals, &sig);
      while (!server.is_running())
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      server.stop();
    });
  waiter.detach();
  bool served = server.run();
  int rc = served ? 0 : 1;
  if (!options.state_dir.empty())
  {
    if (!server.save_state(error))
    {
      std::fprintf(stderr, "exo-sim: cannot save state: %s\n", error.c_str());
      rc = 1;
    }
  }
  if (log != stderr && log != stdout)
    std::fclose(log);
  return rc;
}
