#include "apps/backup-agent/agent_http_server.h"

#include "apps/backup-agent/bounded_task_queue.h"
#include "host/base/log.h"

#include <chrono>
#include <sys/socket.h>
#include <sys/stat.h>
#include <fstream>
#include <sstream>
#include <thread>

namespace
{
const size_t MAX_CONSOLE_FILE_BYTES = 16 * 1024 * 1024;

// "application/json", with or without parameters, in any case.
bool is_json_type(const std::string& content_type)
{
  std::string type = content_type.substr(0, content_type.find(';'));
  while (!type.empty() && (type.back() == ' ' || type.back() == '\t'))
    type.pop_back();
  for (char& c : type)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return type == "application/json";
}

std::string type_of(const std::string& name)
{
  static const struct
  {
    const char* extension;
    const char* type;
  } types[] = {{".html", "text/html; charset=utf-8"},
               {".js", "text/javascript; charset=utf-8"},
               {".css", "text/css; charset=utf-8"},
               {".json", "application/json"},
               {".svg", "image/svg+xml"},
               {".png", "image/png"},
               {".ico", "image/x-icon"},
               {".txt", "text/plain; charset=utf-8"}};
  for (const auto& t : types)
  {
    const std::string extension = t.extension;
    if (name.size() > extension.size() &&
        name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
      return t.type;
  }
  return "application/octet-stream";
}
}  // namespace

Agent_Http_Server::Agent_Http_Server(const Agent_API_Key& key, const JSON_RPC_Dispatcher& dispatcher,
                                     const std::string& console_dir, int threads)
  : key_(key), dispatcher_(dispatcher), console_dir_(console_dir), threads_(threads > 0 ? threads : 1)
{
  install_routes();
}

bool Agent_Http_Server::bind(const std::string& host, int port, int& bound_port)
{
  // The library listens with a backlog of 5: clients that connect at once
  // beyond it see their connections fail, not wait. Linux takes a second
  // listen() on a listening socket as a new backlog, so the socket is kept
  // from the library's socket-options hook (which runs before its listen) and
  // given the system's maximum once bound.
  socket_t listening = INVALID_SOCKET;
  server_.set_socket_options(
    [&listening](socket_t sock)
    {
      httplib::default_socket_options(sock);
      listening = sock;
    });
  if (port == 0)
    bound_port = server_.bind_to_any_port(host.c_str());
  else
    bound_port = server_.bind_to_port(host.c_str(), port) ? port : -1;
  server_.set_socket_options(httplib::default_socket_options);
  if (bound_port > 0 && listening != INVALID_SOCKET && ::listen(listening, SOMAXCONN) != 0)
    LOG_MSG(LM_WARNING, "Cannot raise the listen backlog of the JSON-RPC endpoint: %m\n");
  return bound_port > 0;
}

bool Agent_Http_Server::run()
{
  const bool ok = server_.listen_after_bind();
  finished_ = true;
  return ok;
}

void Agent_Http_Server::stop()
{
  // A stop that came before the accept loop runs would be lost, so it waits for
  // the loop to start (or to have ended already).
  while (!server_.is_running() && !finished_)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  server_.stop();
}

void Agent_Http_Server::install_routes()
{
  const size_t threads = static_cast<size_t>(threads_);
  // Accepted connections wait for a worker in a queue of at most
  // MAX_WAITING_CONNECTIONS; beyond that they wait in the listen backlog.
  server_.new_task_queue = [threads] { return new Bounded_Task_Queue(threads, MAX_WAITING_CONNECTIONS); };
  // One request per connection: no worker waits on an idle connection, and a
  // refused request's unread body is never taken for a next request.
  server_.set_keep_alive_max_count(1);
  server_.set_read_timeout(30, 0);
  server_.set_write_timeout(30, 0);
  server_.set_payload_max_length(MAX_BODY_BYTES);
  // The key is checked before the body is read: a refused request runs nothing.
  server_.set_pre_routing_handler(
    [this](const httplib::Request& req, httplib::Response& res)
    {
      if (req.path != "/rpc")
        return httplib::Server::HandlerResponse::Unhandled;
      if (req.get_header_value_count("Authorization") == 1 && key_.accepts(req.get_header_value("Authorization")))
        return httplib::Server::HandlerResponse::Unhandled;
      res.status = 401;
      res.set_header("WWW-Authenticate", "Bearer");
      return httplib::Server::HandlerResponse::Handled;
    });
  server_.set_expect_100_continue_handler(
    [this](const httplib::Request& req, httplib::Response&)
    {
      if (req.path == "/rpc" &&
          !(req.get_header_value_count("Authorization") == 1 && key_.accepts(req.get_header_value("Authorization"))))
        return 401;
      return 100;
    });
  server_.Post("/rpc", [this](const httplib::Request& req, httplib::Response& res) { rpc(req, res); });
  server_.Get("/", [this](const httplib::Request&, httplib::Response& res) { serve_console("index.html", res); });
  server_.Get("/console/(.*)",
              [this](const httplib::Request& req, httplib::Response& res) { serve_console(req.matches[1], res); });
}

void Agent_Http_Server::rpc(const httplib::Request& req, httplib::Response& res)
{
  res.set_header("Cache-Control", "no-store");
  if (!is_json_type(req.get_header_value("Content-Type")))
  {
    res.status = 415;
    res.set_content("a JSON-RPC request must be sent as Content-Type: application/json\n", "text/plain");
    return;
  }
  const std::string reply = dispatcher_.dispatch(req.body);
  if (reply.empty())
  {
    res.status = 204;
    return;
  }
  res.status = 200;
  res.set_content(reply, "application/json");
}

void Agent_Http_Server::serve_console(const std::string& name, httplib::Response& res)
{
  std::string content, type;
  if (!console_file(console_dir_, name, content, type))
  {
    res.status = 404;
    res.set_content("no such console file\n", "text/plain");
    return;
  }
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_content(content, type.c_str());
}

bool Agent_Http_Server::console_file(const std::string& dir, const std::string& name, std::string& content,
                                     std::string& content_type)
{
  // One plain name in the console directory: no path, no parent, no hidden file.
  if (dir.empty() || name.empty() || name[0] == '.' || name.find('/') != std::string::npos ||
      name.find('\\') != std::string::npos || name.find("..") != std::string::npos ||
      name.find('\0') != std::string::npos)
    return false;
  const std::string path = dir + "/" + name;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<unsigned long long>(st.st_size) > MAX_CONSOLE_FILE_BYTES)
    return false;
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream text;
  text << in.rdbuf();
  if (!in.good() && !in.eof())
    return false;
  content = text.str();
  content_type = type_of(name);
  return true;
}
