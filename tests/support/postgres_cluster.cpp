#include "support/postgres_cluster.h"
#include "support/child_process.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <glob.h>
#include <grp.h>
#include <libpq-fe.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{
// Where initdb and postgres are: pg_config's bindir, else Debian's versioned folders.
std::string find_bindir()
{
  std::string dir;
  if (FILE* p = popen("pg_config --bindir 2>/dev/null", "r"))
  {
    char line[512];
    if (fgets(line, sizeof line, p) != nullptr)
      dir = line;
    pclose(p);
  }
  while (!dir.empty() && (dir.back() == '\n' || dir.back() == ' '))
    dir.pop_back();
  if (!dir.empty() && access((dir + "/initdb").c_str(), X_OK) == 0 && access((dir + "/postgres").c_str(), X_OK) == 0)
    return dir;
  glob_t found{};
  std::string best;
  if (glob("/usr/lib/postgresql/*/bin/initdb", 0, nullptr, &found) == 0 && found.gl_pathc > 0)
  {
    best = found.gl_pathv[found.gl_pathc - 1];
    best.resize(best.size() - 7);  // "/initdb"
  }
  globfree(&found);
  return !best.empty() && access((best + "/postgres").c_str(), X_OK) == 0 ? best : "";
}

std::string random_hex(size_t bytes)
{
  std::ifstream random("/dev/urandom", std::ios::binary);
  std::string out;
  for (size_t i = 0; i < bytes; ++i)
  {
    char hex[3];
    snprintf(hex, sizeof hex, "%02x", static_cast<unsigned char>(random.get()));
    out += hex;
  }
  return out;
}
}  // namespace

Postgres_Cluster* Postgres_Cluster::shared(std::string& why, bool& absent)
{
  static std::unique_ptr<Postgres_Cluster> cluster;
  static std::string failure;
  static bool tried = false, missing = false;
  if (!tried)
  {
    tried = true;
    std::string bindir = find_bindir();
    missing = bindir.empty();
    if (missing)
      failure = "PostgreSQL's server programs (initdb, postgres) are not installed";
    else
    {
      cluster.reset(new Postgres_Cluster);
      if (!cluster->start(bindir, failure))
        cluster.reset();
    }
  }
  why = failure;
  absent = missing;
  return cluster.get();
}

Postgres_Cluster::~Postgres_Cluster()
{
  if (server_ > 0)
  {
    kill(server_, SIGINT);  // fast shutdown
    int status;
    while (waitpid(server_, &status, 0) < 0 && errno == EINTR)
    {
    }
  }
  if (!dir_.empty())
  {
    std::string command = "rm -rf '" + dir_ + "'";
    if (system(command.c_str()) != 0)
      perror("rm");
  }
}

// Runs a PostgreSQL program as the cluster's owner, its output to `log`; waits
// for it unless `background` takes its pid.
bool Postgres_Cluster::run_as_owner(const std::vector<std::string>& args, const std::string& log, pid_t* background)
{
  pid_t pid = fork();
  if (pid == 0)
  {
    int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(fd, 1);
    dup2(fd, 2);
    if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(gid_) != 0 || setuid(uid_) != 0))
      _exit(126);
    // A test program that dies leaves no server behind (set after setuid, which clears it).
    prctl(PR_SET_PDEATHSIG, SIGINT);
    std::vector<char*> argv;
    for (const std::string& a : args)
      argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid < 0)
    return false;
  if (background != nullptr)
  {
    *background = pid;
    return true;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
  {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool Postgres_Cluster::start(const std::string& bindir, std::string& error)
{
  char tmpl[] = "/tmp/pg_cluster_XXXXXX";
  if (mkdtemp(tmpl) == nullptr)
  {
    error = "cannot make a temporary directory";
    return false;
  }
  dir_ = tmpl;
  password_ = random_hex(16);
  uid_ = getuid();
  gid_ = getgid();
  if (getuid() == 0)
  {
    // initdb and postgres refuse to run as root.
    struct passwd* nobody = getpwnam("nobody");
    if (nobody == nullptr)
    {
      error = "running as root, and there is no user 'nobody' to run PostgreSQL as";
      return false;
    }
    uid_ = nobody->pw_uid;
    gid_ = nobody->pw_gid;
  }
  std::string pwfile = dir_ + "/pw", log = dir_ + "/server.log";
  std::ofstream(pwfile) << password_ << "\n";
  for (const std::string& path : {dir_, pwfile})
    if (chown(path.c_str(), uid_, gid_) != 0 || chmod(path.c_str(), 0700) != 0)
    {
      error = "cannot hand " + path + " to the server's user";
      return false;
    }
  // ICU's English collation where the server has it (PostgreSQL 15 on), so that
  // SQL relying on the default collation sorts differently from bytewise.
  std::vector<std::string> initdb = {
    bindir + "/initdb",          "-D",       dir_ + "/data", "-U",         user(),
    "--pwfile=" + pwfile,        "-E",       "UTF8",         "--locale=C", "--auth-local=trust",
    "--auth-host=scram-sha-256", "--no-sync"};
  std::vector<std::string> icu = initdb;
  icu.insert(icu.end(), {"--locale-provider=icu", "--icu-locale=en"});
  if (!run_as_owner(icu, log, nullptr) &&
      (system(("rm -rf '" + dir_ + "/data'").c_str()) != 0 || !run_as_owner(initdb, log, nullptr)))
  {
    error = "initdb failed (see " + log + ")";
    return false;
  }
  // A port found free may be taken before the server binds it: a few tries.
  for (int attempt = 0; attempt < 3; ++attempt)
  {
    port_ = free_loopback_port();
    if (!run_as_owner(
          {bindir + "/postgres", "-D", dir_ + "/data", "-p", std::to_string(port_), "-k", dir_, "-h", "127.0.0.1", "-c",
           "fsync=off", "-c", "synchronous_commit=off", "-c", "full_page_writes=off", "-c", "max_connections=200"},
          log, &server_))
      break;
    std::string ping = "host=127.0.0.1 port=" + std::to_string(port_) + " dbname=postgres connect_timeout=2";
    for (int i = 0; i < 300; ++i)
    {
      if (PQping(ping.c_str()) == PQPING_OK)
        return true;
      int status;
      if (waitpid(server_, &status, WNOHANG) == server_)
      {
        server_ = -1;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (server_ > 0)
      break;
  }
  error = "the PostgreSQL server did not start (see " + log + ")";
  return false;
}

std::string Postgres_Cluster::url(const std::string& database) const
{
  return "postgresql://" + std::string(user()) + "@127.0.0.1:" + std::to_string(port_) + "/" + database;
}

bool Postgres_Cluster::run_sql(const std::string& database, const std::string& sql, std::string& error)
{
  const char* keys[] = {"dbname", "password", nullptr};
  std::string url = this->url(database);
  const char* values[] = {url.c_str(), password_.c_str(), nullptr};
  PGconn* conn = PQconnectdbParams(keys, values, 1);
  bool ok = PQstatus(conn) == CONNECTION_OK;
  if (ok)
  {
    PGresult* result = PQexec(conn, sql.c_str());
    ok = PQresultStatus(result) == PGRES_COMMAND_OK || PQresultStatus(result) == PGRES_TUPLES_OK;
    PQclear(result);
  }
  if (!ok)
    error = PQerrorMessage(conn);
  PQfinish(conn);
  return ok;
}

std::string Postgres_Cluster::create_database(std::string& error)
{
  std::string name = "catalog_" + std::to_string(getpid()) + "_" + std::to_string(++databases_);
  return run_sql("postgres", "CREATE DATABASE " + name, error) ? name : "";
}
