#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H
#define TESTS_SUPPORT_SCRIPTED_SERVER_H

// A minimal HTTP/1.1 server on raw sockets for fault tests: on 127.0.0.1 and a
// system-chosen port, it reads each request (headers and a Content-Length body)
// and asks the handler for a reply, which may also be "drop the connection
// without answering". One connection at a time, kept alive between requests.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

struct Scripted_Request
{
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
};

struct Scripted_Reply
{
  int status = 200;
  std::map<std::string, std::string> headers;
  std::string body;
  bool drop = false;  // close the connection instead of answering
};

class Scripted_Server
{
public:
  typedef std::function<Scripted_Reply(const Scripted_Request&)> Handler;

  explicit Scripted_Server(Handler handler) : handler_(std::move(handler))
  {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      throw std::runtime_error("cannot listen on loopback");
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~Scripted_Server()
  {
    stop_ = true;
    thread_.join();
    ::close(listener_);
  }

  int port() const { return port_; }
  std::string url(const std::string& path = "") const { return "http://127.0.0.1:" + std::to_string(port_) + path; }
  int requests() const { return requests_; }
  int connections() const { return connections_; }

private:
  bool wait_readable(int fd)
  {
    while (!stop_)
    {
      pollfd p = {fd, POLLIN, 0};
      const int n = ::poll(&p, 1, 50);
      if (n > 0)
        return true;
    }
    return false;
  }

  // Reads one request; false when the peer closed or the server stops.
  bool read_request(int fd, std::string& buffer, Scripted_Request& request)
  {
    size_t header_end;
    while ((header_end = buffer.find("\r\n\r\n")) == std::string::npos)
      if (!fill(fd, buffer))
        return false;
    const std::string head = buffer.substr(0, header_end);
    buffer.erase(0, header_end + 4);
    size_t line_end = head.find("\r\n");
    const std::string first = head.substr(0, line_end);
    request.method = first.substr(0, first.find(' '));
    request.target = first.substr(first.find(' ') + 1);
    request.target = request.target.substr(0, request.target.rfind(' '));
    while (line_end != std::string::npos)
    {
      const size_t next = head.find("\r\n", line_end + 2);
      const std::string line =
        head.substr(line_end + 2, next == std::string::npos ? std::string::npos : next - line_end - 2);
      const size_t colon = line.find(':');
      if (colon != std::string::npos)
      {
        std::string name = line.substr(0, colon);
        for (char& c : name)
          c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        size_t v = colon + 1;
        while (v < line.size() && line[v] == ' ')
          ++v;
        request.headers[name] = line.substr(v);
      }
      line_end = next;
    }
    const size_t length = request.headers.count("content-length")
                            ? std::strtoul(request.headers["content-length"].c_str(), nullptr, 10)
                            : 0;
    while (buffer.size() < length)
      if (!fill(fd, buffer))
        return false;
    request.body = buffer.substr(0, length);
    buffer.erase(0, length);
    return true;
  }

  bool fill(int fd, std::string& buffer)
  {
    if (!wait_readable(fd))
      return false;
    char chunk[65536];
    const ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0)
      return false;
    buffer.append(chunk, static_cast<size_t>(n));
    return true;
  }

  static void send_all(int fd, const std::string& text)
  {
    size_t done = 0;
    while (done < text.size())
    {
      const ssize_t n = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n <= 0)
        return;
      done += static_cast<size_t>(n);
    }
  }

  void serve()
  {
    while (!stop_)
    {
      if (!wait_readable(listener_))
        return;
      const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0)
        continue;
      ++connections_;
      std::string buffer;
      Scripted_Request request;
      while (read_request(fd, buffer, request))
      {
        ++requests_;
        const Scripted_Reply reply = handler_(request);
        request = Scripted_Request();
        if (reply.drop)
          break;
        std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " X\r\n";
        for (const auto& h : reply.headers)
          text += h.first + ": " + h.second + "\r\n";
        text += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
        send_all(fd, text);
      }
      ::close(fd);
    }
  }

  Handler handler_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> requests_{0};
  std::atomic<int> connections_{0};
  std::thread thread_;
};

#endif
