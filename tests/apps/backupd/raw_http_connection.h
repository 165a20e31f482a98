#ifndef TESTS_APPS_BACKUPD_RAW_HTTP_CONNECTION_H
#define TESTS_APPS_BACKUPD_RAW_HTTP_CONNECTION_H

// One TCP connection to a loopback server, written to byte for byte and read as
// HTTP answers framed by Content-Length: for requests no HTTP client would send.
// Every read waits at most 10 seconds.

#include <cerrno>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

class Raw_Http_Connection
{
public:
  struct Answer
  {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
  };

  explicit Raw_Http_Connection(int port)
  {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    {
      close(fd_);
      fd_ = -1;
    }
  }
  ~Raw_Http_Connection()
  {
    if (fd_ >= 0)
      close(fd_);
  }
  Raw_Http_Connection(const Raw_Http_Connection&) = delete;
  Raw_Http_Connection& operator=(const Raw_Http_Connection&) = delete;

  bool connected() const { return fd_ >= 0; }

  // False when not all of it could be sent (the server may have closed).
  bool send_all(const std::string& data)
  {
    size_t done = 0;
    while (done < data.size())
    {
      ssize_t n = ::send(fd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (n <= 0)
        return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }

  // Reads one answer; false when the connection ended or stalled first.
  bool read_answer(Answer& answer)
  {
    answer = Answer();
    size_t end;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
      if (!fill())
        return false;
    std::string head = buffer_.substr(0, end);
    buffer_.erase(0, end + 4);
    size_t line_end = head.find("\r\n");
    std::string status_line = head.substr(0, line_end);
    if (status_line.compare(0, 9, "HTTP/1.1 ") != 0)
      return false;
    answer.status = atoi(status_line.c_str() + 9);
    while (line_end != std::string::npos)
    {
      size_t start = line_end + 2;
      line_end = head.find("\r\n", start);
      std::string line = head.substr(start, line_end == std::string::npos ? std::string::npos : line_end - start);
      size_t colon = line.find(':');
      if (colon == std::string::npos)
        continue;
      std::string name = line.substr(0, colon);
      for (char& c : name)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
      answer.headers[name] = line.substr(line.find_first_not_of(' ', colon + 1));
    }
    if (answer.status == 100)
      return read_answer(answer);
    size_t length = answer.headers.count("content-length") ? std::stoul(answer.headers["content-length"]) : 0;
    while (buffer_.size() < length)
      if (!fill())
        return false;
    answer.body = buffer_.substr(0, length);
    buffer_.erase(0, length);
    return true;
  }

  // True when the server ends the connection with nothing more to read.
  bool ends()
  {
    while (buffer_.empty())
      if (!fill())
        return eof_;
    return false;
  }

private:
  bool fill()
  {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0)
      return false;
    char buf[16384];
    ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if (n <= 0)
    {
      eof_ = n == 0 || errno == ECONNRESET;
      return false;
    }
    buffer_.append(buf, static_cast<size_t>(n));
    return true;
  }

  int fd_ = -1;
  std::string buffer_;
  bool eof_ = false;
};

#endif
