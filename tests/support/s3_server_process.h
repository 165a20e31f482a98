#ifndef TESTS_SUPPORT_S3_SERVER_PROCESS_H
#define TESTS_SUPPORT_S3_SERVER_PROCESS_H

// Runs the S3-compatible test server (tests/support/s3-server: s3rver behind
// server.js, which checks Signature V4 in full and can inject faults) on a free
// loopback port with a temporary data directory. The server's npm packages are
// installed on first use into the build tree, from the registry, checked against
// package-lock.json (install.js). Needs Node.js; tests skip when it is absent.
//
// shared() starts one server for the whole test program, so that each test pays
// for the start-up at most once; pools on it are kept apart by key prefix.

#include <nlohmann/json_fwd.hpp>
#include <sys/types.h>

#include <string>

class S3_Server_Process
{
public:
  static constexpr const char* bucket = "backup-pools";
  static constexpr const char* region = "eu-test-1";
  static constexpr const char* access_key_id = "storage-test-key";
  static constexpr const char* secret_access_key = "storage-test-secret-0f3e9a";

  // Whether `node` is on the PATH.
  static bool node_available();
  // The program's server, started on first use; throws when it cannot start.
  static S3_Server_Process& shared();

  S3_Server_Process();
  ~S3_Server_Process();
  S3_Server_Process(const S3_Server_Process&) = delete;
  S3_Server_Process& operator=(const S3_Server_Process&) = delete;

  int port() const { return port_; }
  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // A location on the server for a new, empty pool (a prefix of its own).
  std::string new_pool_location();

  // The server's control endpoints (see server.js); each throws when the
  // server does not answer.
  nlohmann::json stats() const;
  void set_faults(const nlohmann::json& faults) const;
  void reset_stats() const;

private:
  static void install();
  void stop();

  pid_t pid_ = -1;
  int port_ = 0;
  std::string dir_;
  int pools_ = 0;
};

#endif
