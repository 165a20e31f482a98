#ifndef TESTS_SUPPORT_CHILD_PROCESS_H
#define TESTS_SUPPORT_CHILD_PROCESS_H

// Starting the servers the tests run (exo-sim, the S3 test server) and finding
// a free loopback port for those that cannot pick their own.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

// Starts `args` (argv[0] looked up on the PATH when `search_path`) with its
// standard output into a pipe, and reads the first line the program writes
// there (its "listening on …" line), without the line end. False, with `pid`
// -1, when the program cannot be started; a program that ends before writing a
// line gives an empty line and its `pid` to reap.
inline bool start_and_read_first_line(std::vector<std::string> args, bool search_path, pid_t& pid, std::string& line)
{
  std::vector<char*> argv;
  for (std::string& a : args)
    argv.push_back(&a[0]);
  argv.push_back(nullptr);
  pid = -1;
  int out[2];
  if (::pipe(out) != 0)
    return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  const int rc = search_path ? posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ)
                             : posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (rc != 0)
  {
    pid = -1;
    ::close(out[0]);
    return false;
  }
  line.clear();
  char c;
  while (::read(out[0], &c, 1) == 1 && c != '\n')
    line += c;
  ::close(out[0]);
  return true;
}

// A loopback port nobody listens on at the moment of asking.
inline int free_loopback_port()
{
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

#endif
