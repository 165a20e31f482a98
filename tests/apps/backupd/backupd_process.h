#ifndef TESTS_APPS_BACKUPD_BACKUPD_PROCESS_H
#define TESTS_APPS_BACKUPD_BACKUPD_PROCESS_H

// Runs a backupd for a test: a temporary data directory with an access key file,
// pools added through "backupd pool add", the server on a free loopback port.
// The destructor kills the server and removes the directory. BACKUPD_PATH names
// the program (set by the test's CMakeLists.txt).

#include "support/child_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "host/storage/host_manager.h"

class Backupd_Process
{
public:
  Backupd_Process()
  {
    char tmpl[] = "/tmp/backupd_test_XXXXXX";
    root_ = mkdtemp(tmpl);
    data_ = root_ + "/data";
    std::ofstream(root_ + "/keys") << "# test keys\n" << key() << "\n" << node_key() << "\n";
    chmod((root_ + "/keys").c_str(), 0600);
  }

  ~Backupd_Process()
  {
    stop();
    std::string command = "rm -rf '" + root_ + "'";
    if (system(command.c_str()) != 0)
      perror("rm");
  }

  static std::string key() { return "test-access-key-0123456789"; }
  static std::string node_key() { return "test-node-key-9876543210"; }
  const std::string& data_dir() const { return data_; }
  const std::string& root() const { return root_; }
  int port() const { return port_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string pool_url(const std::string& uuid) const { return url() + "/d2/storage/" + uuid; }

  // Arguments naming the catalog ("--catalog", URL, ...), given to the server
  // and to "backupd pool add"; none: the SQLite catalog in the data directory.
  void set_catalog_args(const std::vector<std::string>& args) { catalog_args_ = args; }
  // Where the server's standard error goes (empty: this program's).
  void set_error_log(const std::string& path) { error_log_ = path; }

  // Runs "backupd pool add", with `args` after the pool's settings; true when
  // it succeeded.
  bool add_pool(const std::string& uuid, const std::string& name, const std::string& settings = "{}",
                const std::vector<std::string>& args = {})
  {
    std::string command = std::string(BACKUPD_PATH) + " pool add --data '" + data_ + "' --uuid '" + uuid +
                          "' --name '" + name + "' --host-uuid host-1 --settings '" + settings + "'";
    for (const std::string& arg : args)
      command += " '" + arg + "'";
    for (const std::string& arg : catalog_args_)
      command += " '" + arg + "'";
    command += " > /dev/null";
    return system(command.c_str()) == 0;
  }

  // A loopback port that was free a moment ago.
  static int free_port() { return free_loopback_port(); }

  // Starts the server (on `port`, or any free port) and waits until it listens.
  bool start(int port = 0)
  {
    int out[2];
    if (pipe(out) != 0)
      return false;
    pid_ = fork();
    if (pid_ == 0)
    {
      dup2(out[1], 1);
      close(out[0]);
      close(out[1]);
      if (!error_log_.empty())
        dup2(::open(error_log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
      // Nothing else of this program's: a connection of its HTTP clients left
      // open in the server would keep the peer waiting for it to close.
      close_range(3, ~0U, 0);
      std::vector<std::string> args = {BACKUPD_PATH,
                                       "--data",
                                       data_,
                                       "--access-key-file",
                                       root_ + "/keys",
                                       "--listen",
                                       "127.0.0.1:" + std::to_string(port)};
      args.insert(args.end(), catalog_args_.begin(), catalog_args_.end());
      std::vector<char*> argv;
      for (std::string& arg : args)
        argv.push_back(&arg[0]);
      argv.push_back(nullptr);
      execv(BACKUPD_PATH, argv.data());
      _exit(127);
    }
    close(out[1]);
    std::string line;
    char c;
    while (read(out[0], &c, 1) == 1 && c != '\n')
      line += c;
    close(out[0]);
    size_t colon = line.rfind(':');
    if (line.compare(0, 7, "backupd") != 0 || colon == std::string::npos)
    {
      stop();
      return false;
    }
    port_ = atoi(line.c_str() + colon + 1);
    return port_ > 0;
  }

  void kill_hard() { end(SIGKILL); }
  void stop() { end(SIGTERM); }

  // Points this process's clients at the server.
  void configure_host(const std::string& access_key = key()) const
  {
    Host_Manager::Settings settings;
    settings.backupd_url = url();
    settings.access_key = access_key;
    settings.node_access_key = node_key();
    settings.host_id = "host-1";
    Host_Manager::instance().init(settings);
  }

private:
  void end(int sig)
  {
    if (pid_ <= 0)
      return;
    kill(pid_, sig);
    int status;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR)
    {
    }
    pid_ = -1;
  }

  std::string root_;
  std::string data_;
  std::vector<std::string> catalog_args_;
  std::string error_log_;
  pid_t pid_ = -1;
  int port_ = 0;
};

#endif
