#include "apps/backup-agent/serve_command.h"

#include "apps/backup-agent/agent_api_key.h"
#include "apps/backup-agent/agent_http_server.h"
#include "apps/backup-agent/agent_jobs.h"
#include "apps/backup-agent/agent_methods.h"
#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/rpc_method_table.h"
#include "host/base/agent_config.h"
#include "host/base/log.h"
#include "host/base/state_dir.h"
#include "host/http/uri.h"

#include <csignal>
#include <pthread.h>
#include <sys/stat.h>
#include <thread>

#ifndef AGENT_CONSOLE_DIR
#define AGENT_CONSOLE_DIR "/usr/share/backup-agent/console"
#endif

const char* Serve_Command::usage()
{
  return "usage: backup-agent [--config FILE] serve [--listen HOST:PORT] [--allow-remote] [--console-dir DIR]\n"
         "                    [--threads N]\n"
         "       backup-agent [--config FILE] serve --print-key\n"
         "Answers JSON-RPC 2.0 at POST /rpc (every request with \"Authorization: Bearer <API key>\")\n"
         "and serves the web console at GET /. Listens on 127.0.0.1:8470 unless told otherwise;\n"
         "a HOST that is not a loopback address needs --allow-remote (the traffic is not encrypted).\n"
         "The API key is made on first use in the state directory; --print-key prints it.\n"
         "Stops on Ctrl-C or SIGTERM.\n";
}

bool Serve_Command::parse(const std::vector<std::string>& args, Request& request, std::string& error)
{
  std::string listen;
  if (!Flag_Reader(request.help)
         .value("--listen", listen)
         .flag("--allow-remote", request.allow_remote)
         .value("--console-dir", request.console_dir)
         .number("--threads", request.threads, 1, 256)
         .flag("--print-key", request.print_key)
         .read(args, error))
    return false;
  if (!listen.empty())
  {
    const size_t colon = listen.rfind(':');
    const std::string port = colon == std::string::npos ? std::string() : listen.substr(colon + 1);
    if (colon == std::string::npos || colon == 0 || port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535)
    {
      error = "--listen takes HOST:PORT (PORT 0 for any free port)";
      return false;
    }
    request.host = listen.substr(0, colon);
    if (request.host.size() > 2 && request.host.front() == '[' && request.host.back() == ']')
      request.host = request.host.substr(1, request.host.size() - 2);
    request.port = std::stoi(port);
  }
  if (!request.allow_remote && !is_loopback_host(request.host))
  {
    error = "--listen " + request.host +
            " is not a loopback address; the agent takes requests from other hosts only with --allow-remote";
    return false;
  }
  if (request.console_dir.empty())
    request.console_dir = AGENT_CONSOLE_DIR;
  return true;
}

int Serve_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  Request request;
  std::string error;
  if (!parse(args, request, error))
  {
    err << "backup-agent serve: " << error << "\n" << usage();
    return 64;
  }
  if (request.help)
  {
    out << usage();
    return 0;
  }
  const std::string& state_dir = Agent_Config::instance().state_dir();
  if (state_dir.empty() || !make_dirs(state_dir, 0700))
  {
    err << "error: the API key is kept in the agent's state directory: give a configuration with \"state_dir\" "
           "(--config FILE)\n";
    return 1;
  }
  Agent_API_Key key;
  if (!key.load_or_create(Agent_API_Key::file_in(state_dir), error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  if (request.print_key)
  {
    out << key.key().c_str() << "\n";
    return 0;
  }

  struct stat st;
  if (::stat(request.console_dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    err << "warning: the console directory " << request.console_dir
        << " does not exist; GET / answers 404 (give --console-dir DIR)\n";

  // Signals are taken by one thread with sigwait; every thread started from
  // here on (the server's workers, the jobs' threads) has them blocked.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Agent_Jobs jobs;
  Agent_Methods methods(module_, jobs);
  JSON_RPC_Dispatcher::Method_Table table;
  if (!RPC_Method_Table::build(module_.library(), methods, table, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  const JSON_RPC_Dispatcher dispatcher(table);
  Agent_Http_Server server(key, dispatcher, request.console_dir, request.threads);
  int bound = 0;
  if (!server.bind(request.host, request.port, bound))
  {
    err << "error: cannot listen on " << request.host << ":" << request.port << "\n";
    return 1;
  }
  if (request.allow_remote && !is_loopback_host(request.host))
    err << "warning: taking requests from other hosts over plain HTTP; the API key crosses the network unencrypted\n";
  LOG_MSG(LM_INFO, "JSON-RPC endpoint listening on %s:%d\n", request.host.c_str(), bound);
  out << "backup-agent serve listening on " << request.host << ":" << bound << std::endl;
  std::thread stopper(
    [&server, stop_signals]
    {
      int sig = 0;
      sigwait(&stop_signals, &sig);
      server.stop();
    });
  const bool ok = server.run();
  // Wakes the stopper when the server ended on its own.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  jobs.stop_all();
  LOG_MSG(LM_INFO, "JSON-RPC endpoint stopped\n");
  return ok ? 0 : 1;
}
