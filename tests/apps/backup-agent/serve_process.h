#ifndef TESTS_APPS_BACKUP_AGENT_SERVE_PROCESS_H
#define TESTS_APPS_BACKUP_AGENT_SERVE_PROCESS_H

// Runs `backup-agent serve --listen 127.0.0.1:0` (plus `extra` arguments) for a
// test, finds the port it bound from its first line of output, and talks
// JSON-RPC to it with the agent's API key. stop() sends SIGTERM and waits for
// the agent to exit; the destructor does so when the test did not.

#include "apps/backup-agent/agent_process.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <signal.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

class Serve_Process
{
public:
  // `config`: the agent configuration; `dir`: where its output files go.
  Serve_Process(const std::string& config, const std::string& dir, const std::vector<std::string>& extra = {})
  {
    std::vector<std::string> args = {"--module", EXCHANGE_MODULE_PATH, "--config",   config,
                                     "serve",    "--listen",           "127.0.0.1:0"};
    args.insert(args.end(), extra.begin(), extra.end());
    process_.reset(new Agent_Process(args, dir, "serve"));
    const std::string out_path = dir + "/serve.out";
    const std::string prefix = "backup-agent serve listening on 127.0.0.1:";
    for (int waited = 0; waited < 30000; waited += 20)
    {
      const std::string out = Agent_Process::read(out_path);
      const size_t at = out.find(prefix);
      const size_t end = out.find('\n', at);
      if (at != std::string::npos && end != std::string::npos)
      {
        port_ = std::stoi(out.substr(at + prefix.size(), end - at - prefix.size()));
        break;
      }
      int status = 0;
      if (::waitpid(process_->pid(), &status, WNOHANG) == process_->pid())
        throw std::runtime_error("backup-agent serve ended at start: " + Agent_Process::read(dir + "/serve.err"));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (port_ == 0)
      throw std::runtime_error("backup-agent serve did not start");
    key_ = Agent_Process::read(dir + "/state/api_key");
    while (!key_.empty() && key_.back() == '\n')
      key_.pop_back();
  }
  ~Serve_Process() { stop(); }

  int port() const { return port_; }
  const std::string& key() const { return key_; }

  // A client of the agent (one connection per request: the agent closes each).
  std::unique_ptr<httplib::Client> client() const
  {
    std::unique_ptr<httplib::Client> c(new httplib::Client("127.0.0.1", port_));
    c->set_read_timeout(120, 0);
    return c;
  }

  // POST /rpc with `body` and the key (or `authorization` when given).
  httplib::Result post(const std::string& body, const std::string* authorization = nullptr,
                       const std::string& content_type = "application/json") const
  {
    httplib::Headers headers = {{"Authorization", authorization ? *authorization : "Bearer " + key_}};
    if (authorization != nullptr && authorization->empty())
      headers.clear();
    return client()->Post("/rpc", headers, body, content_type.c_str());
  }

  // One request; the whole reply object, or {"http_error"} or {"http_status"}
  // when no reply came.
  nlohmann::ordered_json call(const std::string& method, const nlohmann::ordered_json& params, int id = 1) const
  {
    const nlohmann::ordered_json request = {{"jsonrpc", "2.0"}, {"method", method}, {"params", params}, {"id", id}};
    httplib::Result res = post(request.dump());
    if (!res)
      return {{"http_error", httplib::to_string(res.error())}};
    if (res->status != 200)
      return {{"http_status", res->status}};
    return nlohmann::ordered_json::parse(res->body, nullptr, false);
  }

  // SIGTERM and wait; the agent's outcome.
  Agent_Outcome stop()
  {
    if (process_ && process_->pid() > 0)
      ::kill(process_->pid(), SIGTERM);
    return process_ ? process_->wait() : Agent_Outcome();
  }

private:
  std::unique_ptr<Agent_Process> process_;
  int port_ = 0;
  std::string key_;
};

#endif
