#include "support/s3_server_process.h"
#include "support/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "host/storage/s3_location.h"

extern char** environ;

namespace
{
std::string file_text(const std::string& path)
{
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}
}  // namespace

bool S3_Server_Process::node_available() { return std::system("command -v node > /dev/null 2>&1") == 0; }

S3_Server_Process& S3_Server_Process::shared()
{
  static S3_Server_Process server;
  return server;
}

// Test programs may run at once (ctest -j): one installs, the others wait on the lock.
void S3_Server_Process::install()
{
  const std::string npm_dir = S3_SERVER_NPM_DIR;
  const std::string lock = std::string(S3_SERVER_SOURCE_DIR) + "/package-lock.json";
  if (std::system(("mkdir -p '" + npm_dir + "'").c_str()) != 0)
    throw std::runtime_error("cannot create " + npm_dir);
  const int fd = ::open((npm_dir + "/.install-lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 || ::flock(fd, LOCK_EX) != 0)
    throw std::runtime_error("cannot lock " + npm_dir);
  struct stat st;
  const bool current = file_text(lock) == file_text(npm_dir + "/installed.lock") &&
                       ::stat((npm_dir + "/node_modules/s3rver/package.json").c_str(), &st) == 0;
  const int rc =
    current
      ? 0
      : std::system(("node '" + std::string(S3_SERVER_SOURCE_DIR) + "/install.js' '" + npm_dir + "' >&2").c_str());
  ::close(fd);
  if (rc != 0)
    throw std::runtime_error("cannot install the S3 test server's packages into " + npm_dir);
}

S3_Server_Process::S3_Server_Process()
{
  install();
  char tmpl[] = "/tmp/s3_server_XXXXXX";
  if (!mkdtemp(tmpl))
    throw std::runtime_error("mkdtemp");
  dir_ = tmpl;
  std::vector<std::string> args = {"node",         std::string(S3_SERVER_SOURCE_DIR) + "/server.js",
                                   "--modules",    S3_SERVER_NPM_DIR,
                                   "--dir",        dir_,
                                   "--bucket",     bucket,
                                   "--region",     region,
                                   "--access-key", access_key_id,
                                   "--secret-key", secret_access_key};
  std::string line;
  const bool started = start_and_read_first_line(args, true, pid_, line);
  const size_t colon = line.rfind(':');
  if (!started || line.compare(0, 13, "listening on ") != 0 || colon == std::string::npos)
  {
    stop();
    throw std::runtime_error("the S3 test server did not start: '" + line + "'");
  }
  port_ = std::stoi(line.substr(colon + 1));
}

S3_Server_Process::~S3_Server_Process() { stop(); }

void S3_Server_Process::stop()
{
  if (pid_ > 0)
  {
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
  }
  if (!dir_.empty() && std::system(("rm -rf '" + dir_ + "'").c_str()) != 0)
    dir_.clear();
}

std::string S3_Server_Process::new_pool_location()
{
  std::string location;
  S3_Location::compose(endpoint(), bucket, "pool-" + std::to_string(getpid()) + "-" + std::to_string(++pools_),
                       location);
  return location;
}

nlohmann::json S3_Server_Process::stats() const
{
  httplib::Client client("127.0.0.1", port_);
  auto res = client.Get("/__stats");
  if (!res || res->status != 200)
    throw std::runtime_error("no S3 test server stats");
  return nlohmann::json::parse(res->body);
}

void S3_Server_Process::set_faults(const nlohmann::json& faults) const
{
  httplib::Client client("127.0.0.1", port_);
  auto res = client.Post("/__faults", faults.dump(), "application/json");
  if (!res || res->status != 200)
    throw std::runtime_error("cannot set S3 test server faults");
}

void S3_Server_Process::reset_stats() const
{
  httplib::Client client("127.0.0.1", port_);
  client.Post("/__reset", "", "text/plain");
}
