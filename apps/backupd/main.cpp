// backupd: the backup server. It owns the storage pools and the catalog of a data
// directory and serves them over HTTP (see docs/backupd.md).
//
//   backupd --data DIR --access-key-file FILE [--listen HOST:PORT] [--threads N] [CATALOG]
//   backupd pool add --data DIR --name NAME [--uuid UUID] [--host-uuid UUID]
//                    [--url URL] [--settings JSON]
//                    [--s3-endpoint URL --bucket B [--prefix P] [--region R]
//                     --s3-credentials-file FILE] [CATALOG]
//   backupd pool list --data DIR [CATALOG]
//   backupd pool remove --data DIR --name NAME [CATALOG]
// CATALOG: [--catalog sqlite:PATH | postgresql://...] [--catalog-password-file FILE]

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <ftw.h>
#include <iostream>
#include <map>
#include <memory>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "apps/backupd/access_keys.h"
#include "apps/backupd/backupd_server.h"
#include "apps/backupd/catalog_db.h"
#include "host/base/log.h"
#include "host/storage/object_directory.h"
#include "host/storage/s3_credentials.h"
#include "host/storage/s3_location.h"

namespace
{
const char USAGE[] =
  "usage: backupd --data DIR --access-key-file FILE [--listen HOST:PORT] [--threads N] [CATALOG]\n"
  "       backupd pool add --data DIR --name NAME [--uuid UUID] [--host-uuid UUID] [--url URL]"
  " [--settings JSON]\n"
  "                        [--s3-endpoint URL --bucket BUCKET [--prefix PREFIX] [--region REGION]"
  " --s3-credentials-file FILE] [CATALOG]\n"
  "       backupd pool list --data DIR [CATALOG]\n"
  "       backupd pool remove --data DIR --name NAME [CATALOG]\n"
  "CATALOG: [--catalog sqlite:PATH | --catalog postgresql://[USER@]HOST[:PORT]/DBNAME]"
  " [--catalog-password-file FILE]\n"
  "         (default: sqlite:DIR/catalog.db; the URL carries no password)\n";

int usage()
{
  std::cerr << USAGE;
  return 2;
}

// "--key value" pairs after the first `skip` arguments; false on a stray word.
bool read_flags(int argc, char** argv, int skip, std::map<std::string, std::string>& flags)
{
  for (int i = skip; i < argc; i += 2)
  {
    std::string key = argv[i];
    if (key.compare(0, 2, "--") != 0 || i + 1 >= argc)
      return false;
    flags[key.substr(2)] = argv[i + 1];
  }
  return true;
}

std::string new_uuid()
{
  unsigned char b[16];
  std::ifstream random("/dev/urandom", std::ios::binary);
  random.read(reinterpret_cast<char*>(b), sizeof b);
  b[6] = static_cast<unsigned char>((b[6] & 0x0f) | 0x40);
  b[8] = static_cast<unsigned char>((b[8] & 0x3f) | 0x80);
  char text[37];
  snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1], b[2],
           b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return text;
}

// The PostgreSQL password from a file readable by its owner only (one line; a
// trailing newline is not part of it).
bool read_password_file(const std::string& path, std::string& password)
{
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
  {
    std::cerr << "backupd: cannot read the catalog password file " << path << "\n";
    return false;
  }
  if ((st.st_mode & 077) != 0)
  {
    std::cerr << "backupd: the catalog password file " << path << " must not be readable by others (chmod 600)\n";
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in || !std::getline(in, password) || password.empty())
  {
    std::cerr << "backupd: the catalog password file " << path << " holds no password\n";
    return false;
  }
  if (password.back() == '\r')
    password.pop_back();
  return true;
}

// Opens the catalog named by --catalog (default: the SQLite file in the data
// directory) with up to `connections` database connections.
std::unique_ptr<Catalog_DB> open_catalog(const std::map<std::string, std::string>& flags, int connections)
{
  const std::string& data_dir = flags.at("data");
  if (mkdir(data_dir.c_str(), 0750) != 0 && errno != EEXIST)
  {
    std::cerr << "backupd: cannot create " << data_dir << "\n";
    return nullptr;
  }
  Catalog_DB::Location location;
  location.url = flags.count("catalog") ? flags.at("catalog") : "sqlite:" + data_dir + "/catalog.db";
  location.connections = connections;
  if (flags.count("catalog-password-file"))
  {
    if (!Catalog_DB::is_postgres_url(location.url))
    {
      std::cerr << "backupd: --catalog-password-file is for a PostgreSQL catalog\n";
      return nullptr;
    }
    if (!read_password_file(flags.at("catalog-password-file"), location.password))
      return nullptr;
  }
  std::string error;
  std::unique_ptr<Catalog_DB> catalog = Catalog_DB::open(location, error);
  if (!catalog)
    std::cerr << "backupd: cannot open the catalog: " << error << "\n";
  return catalog;
}

// A pool in a bucket of an S3-compatible store: its location becomes the pool's
// URL ("s3+https://endpoint/bucket/prefix") and settings "s3" keep the parts and
// the absolute path of the credentials file, which is checked now and read again
// whenever an agent asks for the pool (so a rotated key needs no change here).
bool set_s3_location(const std::map<std::string, std::string>& flags, Catalog_DB::Pool& pool)
{
  if (!flags.count("bucket") || !flags.count("s3-credentials-file") || flags.count("url"))
  {
    std::cerr << "backupd: --s3-endpoint needs --bucket and --s3-credentials-file, and no --url\n";
    return false;
  }
  const std::string prefix = flags.count("prefix") ? flags.at("prefix") : "";
  if (!S3_Location::compose(flags.at("s3-endpoint"), flags.at("bucket"), prefix, pool.url))
  {
    std::cerr << "backupd: --s3-endpoint must be an http(s) URL without a path, --bucket a bucket name"
                 " (3 to 63 of a-z, 0-9, '-', '.') and --prefix a relative path without '..'\n";
    return false;
  }
  if (flags.count("region") && !S3_Location::is_region(flags.at("region")))
  {
    std::cerr << "backupd: --region must be letters, digits and '-'\n";
    return false;
  }
  S3_Credentials key;
  std::string error;
  char* absolute = realpath(flags.at("s3-credentials-file").c_str(), nullptr);
  const std::string file = absolute ? absolute : flags.at("s3-credentials-file");
  free(absolute);
  if (!key.read_file(file, error))
  {
    std::cerr << "backupd: " << error << "\n";
    return false;
  }
  nlohmann::ordered_json s3;
  s3["endpoint"] = flags.at("s3-endpoint");
  s3["bucket"] = flags.at("bucket");
  s3["prefix"] = prefix;
  s3["region"] = flags.count("region") ? flags.at("region") : "us-east-1";
  s3["credentials_file"] = file;
  pool.settings["s3"] = s3;
  return true;
}

int pool_add(const std::map<std::string, std::string>& flags)
{
  if (!flags.count("data") || !flags.count("name"))
    return usage();
  std::unique_ptr<Catalog_DB> catalog = open_catalog(flags, 1);
  if (!catalog)
    return 1;
  Catalog_DB::Pool pool;
  pool.uuid = flags.count("uuid") ? flags.at("uuid") : new_uuid();
  pool.name = flags.at("name");
  pool.host_uuid = flags.count("host-uuid") ? flags.at("host-uuid") : "";
  pool.url = flags.count("url") ? flags.at("url") : "";
  if (flags.count("settings"))
  {
    pool.settings = nlohmann::ordered_json::parse(flags.at("settings"), nullptr, false);
    if (!pool.settings.is_object())
    {
      std::cerr << "backupd: --settings must be a JSON object\n";
      return 1;
    }
  }
  if (flags.count("s3-endpoint") && !set_s3_location(flags, pool))
    return 1;
  // The catalog refuses invalid and duplicate pools before anything is created on
  // disk; a directory that cannot be made takes the pool out again.
  std::string error;
  if (!catalog->add_pool(pool, error))
  {
    std::cerr << "backupd: cannot add the pool: " << error << "\n";
    return 1;
  }
  Object_Directory dir(Backupd_Server::pool_root(flags.at("data"), pool.uuid));
  if (dir.create() != 0)
  {
    std::cerr << "backupd: cannot create the pool directory " << dir.root() << "\n";
    Catalog_DB::Pool removed;
    catalog->remove_pool(pool.name, removed, error);
    return 1;
  }
  std::cout << pool.uuid << std::endl;
  return 0;
}

int remove_entry(const char* path, const struct stat*, int type, struct FTW*)
{
  return (type == FTW_DP ? rmdir(path) : unlink(path)) == 0 ? 0 : -1;
}

int pool_remove(const std::map<std::string, std::string>& flags)
{
  if (!flags.count("data") || !flags.count("name"))
    return usage();
  std::unique_ptr<Catalog_DB> catalog = open_catalog(flags, 1);
  if (!catalog)
    return 1;
  Catalog_DB::Pool pool;
  std::string error;
  switch (catalog->remove_pool(flags.at("name"), pool, error))
  {
  case Catalog_DB::REMOVED:
    break;
  case Catalog_DB::REMOVE_NOT_FOUND:
    std::cerr << "backupd: no pool named " << flags.at("name") << "\n";
    return 1;
  case Catalog_DB::REMOVE_IN_USE:
    std::cerr << "backupd: the pool is still used: " << error << "; delete them first\n";
    return 1;
  case Catalog_DB::REMOVE_FAILED:
    std::cerr << "backupd: cannot remove the pool: " << error << "\n";
    return 1;
  }
  // Out of the catalog, the pool is no longer served; its objects go with it.
  std::string root = Backupd_Server::pool_root(flags.at("data"), pool.uuid);
  struct stat st;
  if (stat(root.c_str(), &st) == 0 && nftw(root.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS) != 0)
  {
    std::cerr << "backupd: the pool was removed from the catalog, but not all of " << root << " could be deleted\n";
    return 1;
  }
  std::cout << "removed pool " << pool.uuid << " (" << pool.name << ")" << std::endl;
  return 0;
}

int pool_list(const std::map<std::string, std::string>& flags)
{
  if (!flags.count("data"))
    return usage();
  std::unique_ptr<Catalog_DB> catalog = open_catalog(flags, 1);
  if (!catalog)
    return 1;
  std::vector<Catalog_DB::Pool> pools;
  std::string error;
  if (!catalog->list_pools(pools, error))
  {
    std::cerr << "backupd: " << error << "\n";
    return 1;
  }
  for (const auto& pool : pools)
    std::cout << pool.uuid << "\t" << pool.name << "\t" << pool.url << "\n";
  return 0;
}

int serve(const std::map<std::string, std::string>& flags)
{
  if (!flags.count("data") || !flags.count("access-key-file"))
    return usage();
  std::string listen = flags.count("listen") ? flags.at("listen") : "127.0.0.1:8450";
  size_t colon = listen.rfind(':');
  if (colon == std::string::npos)
    return usage();
  std::string host = listen.substr(0, colon);
  int port = atoi(listen.c_str() + colon + 1);
  int threads = flags.count("threads") ? atoi(flags.at("threads").c_str()) : 16;
  if (port < 0 || port > 65535 || threads < 1)
    return usage();

  Access_Keys keys;
  std::string error;
  if (!keys.load(flags.at("access-key-file"), error))
  {
    std::cerr << "backupd: " << error << "\n";
    return 1;
  }
  const std::string& data_dir = flags.at("data");
  // One catalog connection per worker thread at most.
  std::unique_ptr<Catalog_DB> catalog = open_catalog(flags, threads);
  if (!catalog)
    return 1;
  // Uploads cut off by a crash left temporaries behind; none of them was
  // acknowledged, so they go. With a PostgreSQL catalog other backupd processes
  // may be uploading into the same pools right now: their temporaries stay.
  std::vector<Catalog_DB::Pool> pools;
  bool shared_catalog = Catalog_DB::is_postgres_url(flags.count("catalog") ? flags.at("catalog") : "");
  if (!shared_catalog && catalog->list_pools(pools, error))
    for (const auto& pool : pools)
      Object_Directory(Backupd_Server::pool_root(data_dir, pool.uuid)).remove_stale_temporaries();

  // Signals are taken by one thread with sigwait, so the workers never see them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  Backupd_Server server(data_dir, *catalog, keys, threads);
  int bound = 0;
  if (!server.bind(host, port, bound))
  {
    std::cerr << "backupd: cannot listen on " << listen << "\n";
    return 1;
  }
  std::cout << "backupd listening on " << host << ":" << bound << std::endl;
  std::thread stopper(
    [&server, stop_signals]
    {
      int sig = 0;
      sigwait(&stop_signals, &sig);
      server.stop();
    });
  bool ok = server.run();
  // Wake the stopper when the server ended on its own.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  return ok ? 0 : 1;
}
}  // namespace

int main(int argc, char** argv)
{
  std::map<std::string, std::string> flags;
  if (argc >= 3 && std::string(argv[1]) == "pool")
  {
    std::string command = argv[2];
    if (!read_flags(argc, argv, 3, flags))
      return usage();
    if (command == "add")
      return pool_add(flags);
    if (command == "list")
      return pool_list(flags);
    if (command == "remove")
      return pool_remove(flags);
    return usage();
  }
  if (!read_flags(argc, argv, 1, flags))
    return usage();
  return serve(flags);
}
