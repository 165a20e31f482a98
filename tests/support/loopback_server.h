#ifndef TESTS_SUPPORT_LOOPBACK_SERVER_H
#define TESTS_SUPPORT_LOOPBACK_SERVER_H

// An in-test HTTP server on 127.0.0.1 and a port chosen by the system, serving
// until the object is destroyed. Handlers are registered on server() before start().

#include <httplib.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

class Loopback_Server
{
public:
  Loopback_Server() = default;
  ~Loopback_Server() { stop(); }
  Loopback_Server(const Loopback_Server&) = delete;
  Loopback_Server& operator=(const Loopback_Server&) = delete;

  httplib::Server& server() { return server_; }

  // Binds (the socket listens from here on) and serves on a thread.
  void start()
  {
    port_ = server_.bind_to_any_port("127.0.0.1");
    if (port_ <= 0)
      throw std::runtime_error("cannot bind a loopback port");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // A stop() that comes before the accept loop runs is lost and the join would hang.
    while (!server_.is_running())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  void stop()
  {
    if (thread_.joinable())
    {
      server_.stop();
      thread_.join();
    }
  }

  int port() const { return port_; }
  std::string url(const std::string& path = "") const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

private:
  httplib::Server server_;
  std::thread thread_;
  int port_ = 0;
};

#endif
