// Restore throughput of the agent with the Exchange module against the wire
// limit.
//
//   bench_restore [CHANNELS [LARGE_MIB [LARGE_MAX_MIB]]]
//
// Starts backupd (a directory pool in a temporary folder) and exo-sim with the
// demo profile (two mailboxes, some 660 items each, mostly small, plus two
// large items of LARGE_MIB and LARGE_MAX_MIB MiB, default 4 and 24; no hidden
// folders), backs the first mailbox up with `backup-agent backup --channels
// CHANNELS` (default 4; the restore runs as many workers as the set has
// channels), then at 0 ms and 20 ms of added latency per call:
// - measures the wire limit: the items of the mailbox, exported beforehand, are
//   uploaded into a copy of its folder tree in the second mailbox by CHANNELS
//   threads, each with its own EWS client, one item per UploadItems request as
//   the restore's item writers send them (the folders are made before the
//   clock starts);
// - restores the whole mailbox into the second one with `backup-agent restore`
//   (every top-level folder by --path, under a new relocation), timed from the
//   agent's start to its exit.
// Prints one Markdown table row per run: items, MiB, items/s, MiB/s and the
// time against the wire limit's; then, per latency, how many workers the
// restore ran and its peak RSS.

#include "agent_run.h"
#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backup-agent/graph_users_lister.h"
#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/ews/ews_client.h"
#include "host/office365/office365_tenant_registry.h"
#include "support/exo_sim_process.h"

#include <ace/Log_Msg.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

extern char** environ;

namespace
{
const char* const tenant_uuid = "4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f";

struct Figures
{
  bool ok = false;
  double seconds = 0;
  double items = 0;
  double mib = 0;
};

// A folder of the source mailbox: its display name and the index of its parent
// (-1 for a top-level folder), parents before children.
struct Folder_Copy
{
  std::string name;
  int parent = -1;
};

// An item of the source mailbox: the index of its folder and its exported bytes.
struct Item_Copy
{
  size_t folder = 0;
  ustring data;
};

EWS_Client_Ptr client(const Office365_Auth_Entry& entry, const std::string& mailbox)
{
  EWS_Client_Ptr ews;
  if (!create_ews_client("", Secure_String(),
                         std::make_shared<Office365_Auth>(entry, ews_default_scope(entry.ews_endpoint)), ews,
                         mailbox.c_str()))
    return EWS_Client_Ptr();
  return ews;
}

// Every folder below `folder_id` (whose index is `index`, -1 for the root) and
// every item in them with its exported bytes.
bool copy_tree(EWS_Client& ews, const std::string& folder_id, int index, std::vector<Folder_Copy>& folders,
               std::vector<Item_Copy>& items)
{
  if (index >= 0)
  {
    EWS_Items listed;
    if (!ews.list_items(folder_id, make_ews_item_appender(listed), 0, 1000000))
      return false;
    EWS_Export_Requests requests(listed.size());
    for (size_t i = 0; i < listed.size(); ++i)
      requests[i].id = listed[i].id;
    if (!ews.export_items(requests))
      return false;
    for (const EWS_Export_Request& r : requests)
      if (r.data.ptr)
        items.push_back({static_cast<size_t>(index), ustring(r.data.ptr.get(), static_cast<size_t>(r.data.size))});
  }
  EWS_Folders children;
  if (!ews.list_folders(folder_id, children, true))
    return false;
  for (const EWS_Folder& child : children)
  {
    folders.push_back({child.display_name, index});
    if (!copy_tree(ews, child.id, static_cast<int>(folders.size() - 1), folders, items))
      return false;
  }
  return true;
}

// The wire limit: the folder tree made below `relocation` of `target` (not
// timed), then every item uploaded by `threads` threads, one per request.
Figures wire_limit(const Office365_Auth_Entry& entry, const std::string& target, const std::string& relocation,
                   const std::vector<Folder_Copy>& folders, const std::vector<Item_Copy>& items, int threads)
{
  Figures f;
  EWS_Client_Ptr ews = client(entry, target);
  if (!ews)
    return f;
  EWS_Folder_Creation_Request top;
  top.display_name = relocation;
  if (!ews->create_folder("", top, ewstype__DistinguishedFolderIdNameType__msgfolderroot))
    return f;
  std::vector<std::string> ids;
  for (const Folder_Copy& folder : folders)
  {
    EWS_Folder_Creation_Request r;
    r.display_name = folder.name;
    if (!ews->create_folder(folder.parent < 0 ? top.id : ids[static_cast<size_t>(folder.parent)], r,
                            ewstype__DistinguishedFolderIdNameType__msgfolderroot))
      return f;
    ids.push_back(r.id);
  }
  std::vector<EWS_Client_Ptr> clients;
  for (int t = 0; t < threads; ++t)
    clients.push_back(client(entry, target));
  std::atomic<size_t> next{0};
  std::atomic<bool> failed{false};
  std::vector<std::thread> workers;
  const double start = bench_now();
  for (int t = 0; t < threads; ++t)
    workers.emplace_back(
      [&, t]
      {
        EWS_Client_Ptr own = clients[static_cast<size_t>(t)];
        for (size_t i = next++; i < items.size(); i = next++)
        {
          // Copied like the writer's buffer, which is moved into its request.
          std::vector<ustring> one(1, items[i].data);
          if (!own || !own->upload_items(ids[items[i].folder], one))
            failed = true;
        }
      });
  for (std::thread& w : workers)
    w.join();
  f.seconds = bench_now() - start;
  f.ok = !failed;
  double bytes = 0;
  for (const Item_Copy& item : items)
    bytes += static_cast<double>(item.data.size());
  f.items = static_cast<double>(items.size());
  f.mib = bytes / (1024.0 * 1024.0);
  return f;
}

void row(int latency, const std::string& what, const Figures& f, const Figures& wire)
{
  if (!f.ok)
  {
    std::printf("| %d ms | %s | failed | | | | | |\n", latency, what.c_str());
    return;
  }
  std::printf("| %d ms | %s | %.0f | %.1f | %.1f | %.0f | %.1f | %.2f |\n", latency, what.c_str(), f.items, f.mib,
              f.seconds, f.items / f.seconds, f.mib / f.seconds, wire.ok ? f.seconds / wire.seconds : 0.0);
  std::fflush(stdout);
}
}  // namespace

int main(int argc, char** argv)
{
  const int channels = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4;
  const std::string large = argc > 2 ? argv[2] : "4";
  const std::string large_max = argc > 3 ? argv[3] : "24";
  ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);

  Backupd_Process backupd;
  if (!backupd.add_pool("pool-1", "main") || !backupd.start())
  {
    std::fprintf(stderr, "backupd did not start\n");
    return 1;
  }
  Exo_Sim_Process sim({"--profile", "demo", "--mailboxes", "2", "--renamed-users", "0", "--hidden-folders", "0",
                       "--large-item-mib", large, "--large-item-max-mib", large_max});
  const std::string dir = backupd.root();
  ::mkdir((dir + "/state").c_str(), 0700);
  Office365_Tenant_Registry tenants(Office365_Tenant_Registry::file_in(dir + "/state"));
  std::string error;
  tenants.add(tenant_uuid, sim.entry());
  if (!tenants.save(error))
  {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const std::string config = dir + "/agent.json";
  std::ofstream(config) << "{\"state_dir\": \"" << dir << "/state\", \"host_id\": \"host-1\", \"backup_server\": "
                        << "{\"url\": \"" << backupd.url() << "\", \"access_key\": \"" << Backupd_Process::key()
                        << "\"}, \"settings\": {}}";

  std::vector<std::string> mailboxes;
  Graph_Users_Lister lister(sim.entry());
  if (!lister.list(mailboxes, error) || mailboxes.size() < 2)
  {
    std::fprintf(stderr, "no two mailboxes: %s\n", error.c_str());
    return 1;
  }
  const std::string source = mailboxes[0], target = mailboxes[1];

  // The source mailbox as it is, and its set.
  std::vector<Folder_Copy> folders;
  std::vector<Item_Copy> items;
  EWS_Client_Ptr ews = client(sim.entry(), source);
  if (!ews || !copy_tree(*ews, "", -1, folders, items))
  {
    std::fprintf(stderr, "could not read the source mailbox\n");
    return 1;
  }
  std::vector<std::string> top;
  for (const Folder_Copy& f : folders)
    if (f.parent < 0)
      top.push_back(f.name);
  const Agent_Run backup = run_agent({"--config", config, "backup", "--tenant", tenant_uuid, "--mailbox", source,
                                      "--pool", "pool-1", "--channels", std::to_string(channels), "--json"},
                                     dir + "/backup.out");
  if (!backup.ok)
    return 1;
  const double seconds = backup.seconds;
  const std::string set = backup.summary["set_uuid"].get<std::string>();
  std::printf("Mailbox %s: %zu folders, %zu items; set %s on %d channel(s), backed up in %.1f s.\n\n", source.c_str(),
              folders.size(), items.size(), set.c_str(), channels, seconds);
  std::printf(
    "| latency | run | items | MiB | seconds | items/s | MiB/s | time / wire limit |\n"
    "|---|---|---|---|---|---|---|---|\n");

  std::vector<std::string> notes;
  for (int latency : {0, 20})
  {
    sim.set_faults({{"latency_ms", latency}});
    const Figures wire = wire_limit(sim.entry(), target, "Wire " + std::to_string(latency), folders, items, channels);
    row(latency, "wire limit (" + std::to_string(channels) + " threads, UploadItems only)", wire, wire);

    std::vector<std::string> args = {"--config",
                                     config,
                                     "restore",
                                     "--set",
                                     set,
                                     "--from",
                                     source,
                                     "--to",
                                     target,
                                     "--relocation",
                                     "Restore " + std::to_string(latency),
                                     "--json"};
    for (const std::string& path : top)
    {
      args.push_back("--path");
      args.push_back(path);
    }
    const long before = sim.status()["items_uploaded"].get<long>();
    const Agent_Run restore = run_agent(args, dir + "/restore.out");
    Figures f;
    f.ok = restore.ok;
    f.seconds = restore.seconds;
    f.items = static_cast<double>(sim.status()["items_uploaded"].get<long>() - before);
    f.mib = f.ok ? restore.summary["bytes"].get<double>() / (1024.0 * 1024.0) : 0;
    if (f.ok && f.items != wire.items)
      std::fprintf(stderr, "the restore uploaded %.0f items, the mailbox has %.0f\n", f.items, wire.items);
    row(latency, "backup-agent restore (set of " + std::to_string(channels) + " channels)", f, wire);
    notes.push_back(std::to_string(latency) + " ms: the restore's peak RSS was " + std::to_string(restore.rss_mib) +
                    " MiB.");
    // How many workers the restore stream ran, from the agent's log.
    std::ifstream log(dir + "/restore.out.err");
    for (std::string line; std::getline(log, line);)
      if (line.find("worker(s)") != std::string::npos)
        notes.push_back(std::to_string(latency) + " ms: " + line);
  }
  std::printf("\n");
  for (const std::string& note : notes)
    std::printf("%s\n", note.c_str());
  return 0;
}
