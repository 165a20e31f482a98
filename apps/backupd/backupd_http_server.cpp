#include "apps/backupd/backupd_http_server.h"

#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "apps/backupd/socket_stream.h"

namespace
{
// What the connection loop learns about the request being served.
struct Request_State
{
  bool parsed = false;  // the request line and headers were read
  bool has_body = false;
  bool body_read = false;  // the body was read to its end
  bool close = false;      // a handler asked for the connection to end

  bool must_close() const { return !parsed || close || (has_body && !body_read); }
};

// The request of the connection this worker thread serves. Each connection is
// served start to end by one worker thread, handlers included.
thread_local Request_State* current_request = nullptr;

// How long the server waits for a next request in slices, to notice a stop.
const int IDLE_SLICE_MS = 200;
// After ending a connection with an unread body: how long the client may go on
// sending before the connection is closed regardless.
const int LINGER_MS = 2000;

bool has_body(const httplib::Request& req)
{
  return req.has_header("Transfer-Encoding") ||
         (req.has_header("Content-Length") && req.get_header_value("Content-Length") != "0");
}

// Stops sending, then reads and drops what the client still sends until it closes
// or LINGER_MS passed, so that closing does not reset the connection under an
// answer the client has not read yet.
void linger_and_drop(int sock)
{
  ::shutdown(sock, SHUT_WR);
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(LINGER_MS);
  Socket_Stream stream(sock, 0, 0);
  char drop[16 * 1024];
  while (std::chrono::steady_clock::now() < until)
  {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    if (!stream.wait_readable(static_cast<int>(left.count()) + 1) || ::recv(sock, drop, sizeof drop, 0) <= 0)
      break;
  }
}
}  // namespace

Backupd_Http_Server::Backupd_Http_Server()
{
  // The socket the replies go back through is marked before any answer is
  // written: an error answer on a connection that then closes must be complete.
  set_post_routing_handler(
    [](const httplib::Request&, httplib::Response& res)
    {
      if (current_request != nullptr && current_request->must_close())
      {
        res.set_header("Connection", "close");
        res.headers.erase("Keep-Alive");
      }
    });
}

bool Backupd_Http_Server::request_has_body() { return current_request != nullptr && current_request->has_body; }

void Backupd_Http_Server::close_after_reply()
{
  if (current_request != nullptr)
    current_request->close = true;
}

bool Backupd_Http_Server::read_body(const httplib::ContentReader& reader, httplib::ContentReceiver receiver)
{
  bool complete = reader(std::move(receiver));
  if (complete && current_request != nullptr)
    current_request->body_read = true;
  return complete;
}

bool Backupd_Http_Server::process_and_close_socket(socket_t sock)
{
  int on = 1;
  setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Socket_Stream stream(sock, read_timeout_sec_, write_timeout_sec_);
  Request_State state;
  current_request = &state;
  bool ok = true;
  bool forced_close = false;
  auto idle_until = [this] { return std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_); };
  auto deadline = idle_until();
  for (size_t left = keep_alive_max_count_; left > 0 && svr_sock_ != INVALID_SOCKET;)
  {
    if (!stream.wait_readable(IDLE_SLICE_MS))
    {
      if (std::chrono::steady_clock::now() >= deadline)
        break;
      continue;
    }
    state = Request_State();
    bool client_closes = false;
    ok = process_request(stream, left == 1, client_closes,
                         [&state](httplib::Request& req)
                         {
                           state.parsed = true;
                           state.has_body = has_body(req);
                         });
    --left;
    forced_close = state.must_close();
    if (!ok || client_closes || forced_close)
      break;
    deadline = idle_until();
  }
  current_request = nullptr;
  if (forced_close && ok)
    linger_and_drop(sock);
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return ok;
}
