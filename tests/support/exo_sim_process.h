#ifndef TESTS_SUPPORT_EXO_SIM_PROCESS_H
#define TESTS_SUPPORT_EXO_SIM_PROCESS_H

// Runs the Exchange Online simulator (apps/exo-sim) for a test: on a free
// loopback port, stopped with SIGTERM and reaped when the object goes away.
// The test program's CMakeLists.txt defines EXO_SIM_PATH.

#include "host/office365/office365_auth_entry.h"
#include "support/child_process.h"

#include <nlohmann/json_fwd.hpp>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

extern char** environ;

class Exo_Sim_Process
{
public:
  static constexpr const char* tenant_id = "8d7a4f52-6c1b-4e0a-9f3d-2b5c7e9a1d04";
  static constexpr const char* client_id = "3f2b8c1e-5a4d-4c6f-8e7b-9a0d1c2e3f45";
  static constexpr const char* client_secret = "exo-sim-demo-secret";
  static constexpr const char* domain = "demo.exosim.test";

  explicit Exo_Sim_Process(const std::vector<std::string>& extra = {})
  {
    std::vector<std::string> args = {EXO_SIM_PATH, "--port", "0", "--request-log", "/dev/null"};
    args.insert(args.end(), extra.begin(), extra.end());
    std::string line;
    if (!start_and_read_first_line(args, false, pid_, line))
      throw std::runtime_error("cannot start exo-sim");
    const size_t colon = line.rfind(':');
    if (line.compare(0, 13, "listening on ") != 0 || colon == std::string::npos)
    {
      stop();
      throw std::runtime_error("exo-sim did not start: '" + line + "'");
    }
    port_ = std::stoi(line.substr(colon + 1));
  }

  ~Exo_Sim_Process() { stop(); }
  Exo_Sim_Process(const Exo_Sim_Process&) = delete;
  Exo_Sim_Process& operator=(const Exo_Sim_Process&) = delete;

  int port() const { return port_; }
  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string mailbox(const std::string& local) const { return local + "@" + domain; }

  // The demo tenant's registration, all three services on the simulator.
  Office365_Auth_Entry entry() const
  {
    Office365_Auth_Entry e;
    e.ms_login_endpoint = base();
    e.ms_graph_endpoint = base();
    e.ews_endpoint = base() + "/EWS/Exchange.asmx";
    e.tenant_email = mailbox("admin");
    e.tenant_id = tenant_id;
    e.client_id = client_id;
    e.client_secret = client_secret;
    return e;
  }

  // The simulator's control endpoints (see docs/exo-sim.md); each throws when the
  // simulator does not answer. Kept out of line so that tests including this header
  // do not compile the HTTP server library's header.
  nlohmann::json status() const;
  void set_faults(const nlohmann::json& faults) const;
  void reset_counters() const;

private:
  void stop()
  {
    if (pid_ <= 0)
      return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }

  pid_t pid_ = -1;
  int port_ = 0;
};

#endif
