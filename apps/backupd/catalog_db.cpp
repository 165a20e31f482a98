#include "apps/backupd/catalog_db.h"

#include <cctype>

#include "apps/backupd/catalog_postgres.h"
#include "apps/backupd/catalog_sqlite.h"

const char Catalog_DB::UNAVAILABLE[] = "the catalog database is unavailable";
const char Catalog_DB::INVALID_POOL_ID[] =
  "a pool uuid and name are 1 to 64 letters, digits, '.', '_' or '-', starting with a letter or digit";
const char* const Catalog_DB::SET_TEXT_COLUMNS[8] = {"uuid",      "module",   "resource_uuid", "minor_resource_id",
                                                     "host_uuid", "instance", "database",      "pool_uuid"};

bool Catalog_DB::is_postgres_url(const std::string& url)
{
  return url.compare(0, 13, "postgresql://") == 0 || url.compare(0, 11, "postgres://") == 0;
}

bool Catalog_DB::is_transient(const std::string& error)
{
  return error.compare(0, sizeof UNAVAILABLE - 1, UNAVAILABLE) == 0;
}

std::unique_ptr<Catalog_DB> Catalog_DB::open(const Location& location, std::string& error)
{
  if (location.url.compare(0, 7, "sqlite:") == 0 && location.url.size() > 7)
  {
    std::unique_ptr<Catalog_Sqlite> catalog(new Catalog_Sqlite);
    if (!catalog->open(location.url.substr(7), error))
      return nullptr;
    return catalog;
  }
  if (is_postgres_url(location.url))
  {
    std::unique_ptr<Catalog_Postgres> catalog(new Catalog_Postgres);
    if (!catalog->open(location, error))
      return nullptr;
    return catalog;
  }
  error = "a catalog is given as sqlite:PATH or postgresql://[user@]host[:port]/dbname";
  return nullptr;
}

bool Catalog_DB::is_valid_pool_id(const std::string& text)
{
  if (text.empty() || text.size() > 64 || !isalnum(static_cast<unsigned char>(text[0])))
    return false;
  for (char c : text)
    if (!isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '_' && c != '-')
      return false;
  return true;
}

std::string Catalog_DB::member(const nlohmann::ordered_json& record, const char* key)
{
  auto it = record.find(key);
  return it != record.end() && it->is_string() ? it->get<std::string>() : std::string();
}

Catalog_DB::Pool Catalog_DB::pool_from(std::string uuid, std::string name, std::string host_uuid, std::string url,
                                       const std::string& settings)
{
  Pool pool;
  pool.uuid = std::move(uuid);
  pool.name = std::move(name);
  pool.host_uuid = std::move(host_uuid);
  pool.url = std::move(url);
  pool.settings = nlohmann::ordered_json::parse(settings, nullptr, false);
  if (!pool.settings.is_object())
    pool.settings = nlohmann::ordered_json::object();
  return pool;
}
