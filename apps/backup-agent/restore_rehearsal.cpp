#include "apps/backup-agent/restore_rehearsal.h"

#include "apps/backup-agent/set_access.h"

#include "host/ews/ews_client.h"
#include "host/http/uri.h"
#include "host/http/uri_parser.h"
#include "host/mtf/mtf_sha256.h"
#include "host/office365/office365_tenant_registry.h"

namespace
{
const size_t LIST_PAGE = 500;
const size_t EXPORT_BATCH = 20;  // items whose bytes are held at once
}  // namespace

std::string Restore_Rehearsal::scratch_name(const std::string& set, time_t when, const std::string& mailbox)
{
  char stamp[32] = "";
  struct tm utc;
  if (gmtime_r(&when, &utc) != nullptr)
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::string name = "Restore rehearsal " + set + " " + stamp + " " + mailbox;
  for (char& c : name)
    if (c == '/')
      c = '_';  // "/" would nest the relocation folder
  return name;
}

bool Restore_Rehearsal::run(const std::string& mailbox, const EWS_Folders& tree, time_t when, std::ostream& err,
                            nlohmann::ordered_json& report, int& status)
{
  status = 0;
  const std::string folder = scratch_name(record_.uuid, when, mailbox);
  report = {{"mailbox", mailbox}, {"into", target_}, {"folder", folder},  {"restore", ""},
            {"round_trips", 0},   {"differ", 0},     {"not_restored", 0}, {"items", nlohmann::ordered_json::array()}};

  backed_up_.clear();
  const std::string prefix = "/" + Set_Access::path_name(mailbox) + "/";
  for (const MTF_Set_Catalog::Entry& e : catalog_.entries)
  {
    if (e.dir || e.path.compare(0, prefix.size(), prefix) != 0)
      continue;
    const std::string rest = e.path.substr(prefix.size());
    const size_t cut = rest.rfind('/');
    const std::string key = cut == std::string::npos ? std::string() : rest.substr(0, cut);
    backed_up_[key].emplace(e.sha256, Set_Access::shown_path(cut == std::string::npos ? rest : rest.substr(cut + 1)));
  }

  nlohmann::ordered_json storages = nlohmann::ordered_json::array();
  for (const EWS_Folder& f : tree)
    storages.push_back(Set_Access::path_name(f.id));
  bool ok = true;
  if (storages.empty())
    report["restore"] = "nothing to restore";
  else
  {
    Restore_Command::Outcome outcome;
    err << "rehearsing the restore of " << mailbox << " into " << target_ << " /" << folder << "\n";
    status = restore_.restore(record_, mailbox, target_, folder, storages, err, outcome);
    if (status != 0)
    {
      report["restore"] = status == 130 ? "cancelled" : "failed";
      return false;
    }
    report["restore"] = outcome.failures.empty() ? std::string("done") : "done with failures: " + outcome.failures;

    std::string error;
    Office365_Auth_Entry entry;
    URI uri;
    EWS_Client ews;
    if (!get_office365_auth_entry(record_.resource_uuid, entry))
      error = "tenant " + record_.resource_uuid + " is not registered";
    else if (!URI_Parser::parse(entry.ews_endpoint.c_str(), uri))
      error = "the tenant's EWS endpoint is not a URL";
    else if (!ews.init(entry.ews_endpoint, "", Secure_String(),
                       std::make_shared<Office365_Auth>(entry, uri.origin() + "/.default"), target_.c_str()))
      error = "no EWS client for " + target_;
    EWS_Folders roots;
    const EWS_Folder* scratch = nullptr;
    if (error.empty() && !ews.list_folders("", roots, true))
      error = "the folders of " + target_ + " cannot be listed: " + ews.last_error();
    for (const EWS_Folder& f : roots)
      if (f.display_name == folder)
        scratch = &f;
    if (error.empty() && scratch == nullptr)
      error = "the restore made no folder " + folder + " in " + target_;
    if (error.empty())
      export_tree(ews, scratch->id, "", "", report["items"], error);
    if (!error.empty())
    {
      report["restore"] = report["restore"].get<std::string>() + "; " + error;
      ok = false;
    }
  }
  for (const auto& f : backed_up_)
    for (const auto& item : f.second)
      report["items"].push_back({{"folder", Set_Access::shown_path(f.first)},
                                 {"item", item.second},
                                 {"state", "not restored"},
                                 {"reason", ""}});
  size_t round_trips = 0, differ = 0, not_restored = 0;
  for (const auto& item : report["items"])
  {
    const std::string state = item["state"].get<std::string>();
    (state == "round-trips" ? round_trips : state == "differs" ? differ : not_restored) += 1;
  }
  report["round_trips"] = round_trips;
  report["differ"] = differ;
  report["not_restored"] = not_restored;
  return ok && differ == 0 && not_restored == 0;
}

bool Restore_Rehearsal::export_tree(EWS_Client& ews, const std::string& folder_id, const std::string& key,
                                    const std::string& shown, nlohmann::ordered_json& items, std::string& error)
{
  EWS_Folders children;
  if (!ews.list_folders(folder_id, children, true))
  {
    error = "the restored folder " + shown + " cannot be listed: " + ews.last_error();
    return false;
  }
  EWS_Items listed;
  for (size_t offset = 0;; offset += LIST_PAGE)
  {
    const size_t before = listed.size();
    if (!ews.list_items(folder_id, make_ews_item_appender(listed), static_cast<int>(offset),
                        static_cast<int>(LIST_PAGE)))
    {
      error = "the items of the restored folder " + shown + " cannot be listed: " + ews.last_error();
      return false;
    }
    if (listed.size() - before < LIST_PAGE)
      break;
  }
  auto& left = backed_up_[key];
  for (size_t begin = 0; begin < listed.size(); begin += EXPORT_BATCH)
  {
    const size_t end = std::min(listed.size(), begin + EXPORT_BATCH);
    EWS_Export_Requests requests(end - begin);
    for (size_t i = begin; i < end; ++i)
      requests[i - begin].id = listed[i].id;
    if (!ews.export_items(requests))
    {
      error = "the items of the restored folder " + shown + " cannot be exported: " + ews.last_error();
      return false;
    }
    for (size_t i = begin; i < end; ++i)
    {
      const EWS_Export_Request& r = requests[i - begin];
      nlohmann::ordered_json item = {
        {"folder", shown}, {"item", Set_Access::item_name(listed[i])}, {"state", ""}, {"reason", ""}};
      if (!r.data.ptr)
      {
        item["state"] = "differs";
        item["reason"] = "it cannot be exported again";
      }
      else
      {
        MTF_Sha256 sha;
        sha.update(r.data.ptr.get(), r.data.size);
        const auto match = left.find(sha.hex());
        if (match != left.end())
        {
          item["state"] = "round-trips";
          left.erase(match);
        }
        else
        {
          item["state"] = "differs";
          item["reason"] = "no backed-up item of this folder has its bytes";
        }
      }
      items.push_back(item);
    }
  }
  if (left.empty())
    backed_up_.erase(key);
  for (const EWS_Folder& child : children)
  {
    const std::string name = Set_Access::path_name(child.display_name);
    if (!export_tree(ews, child.id, key.empty() ? name : key + "/" + name,
                     shown.empty() ? child.display_name : shown + "/" + child.display_name, items, error))
      return false;
  }
  return true;
}
