#ifndef TESTS_SUPPORT_POSTGRES_CLUSTER_H
#define TESTS_SUPPORT_POSTGRES_CLUSTER_H

// A throwaway PostgreSQL cluster for tests: initdb in a temporary directory, the
// server on a free loopback port (its unix socket in that directory too), a
// superuser with a random password that logs in over TCP with SCRAM. Run as
// root, the server runs as "nobody" (PostgreSQL refuses to run as root). One
// cluster serves a whole test program (shared()); each test takes a database of
// its own (create_database()). Text sorts by ICU's English rules unless a column
// says otherwise, as on a typical production server. The server is stopped and
// the directory removed when the program ends.

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

class Postgres_Cluster
{
public:
  // The program's cluster, started on first use. Null with `why` when it cannot
  // run; `absent` tells that PostgreSQL's programs are not installed.
  static Postgres_Cluster* shared(std::string& why, bool& absent);

  ~Postgres_Cluster();
  Postgres_Cluster(const Postgres_Cluster&) = delete;
  Postgres_Cluster& operator=(const Postgres_Cluster&) = delete;

  static const char* user() { return "catalog_admin"; }
  const std::string& password() const { return password_; }
  int port() const { return port_; }
  // A URL without the password, as backupd takes it.
  std::string url(const std::string& database) const;

  // A new empty database; empty with `error` when it could not be made.
  std::string create_database(std::string& error);
  // Runs SQL statements (no results) in `database`.
  bool run_sql(const std::string& database, const std::string& sql, std::string& error);

private:
  Postgres_Cluster() = default;
  bool start(const std::string& bindir, std::string& error);
  bool run_as_owner(const std::vector<std::string>& args, const std::string& log, pid_t* background);

  std::string dir_;
  std::string password_;
  int port_ = 0;
  pid_t server_ = -1;
  uid_t uid_ = 0;
  gid_t gid_ = 0;
  int databases_ = 0;
};

#endif
