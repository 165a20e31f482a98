// Backup throughput of the agent with the Exchange module against the wire
// limit, over EWS (SOAP) and over Microsoft Graph's mailbox export API.
//
//   bench_backup [MAILBOXES [LARGE_MIB [LARGE_MAX_MIB [LATENCIES]]]]
//
// Starts backupd (a directory pool in a temporary folder) and exo-sim with the
// demo profile (MAILBOXES mailboxes, default 8: some 660 items each, mostly
// small, plus two large items of LARGE_MIB and LARGE_MAX_MIB MiB per mailbox,
// default 4 and 24; no hidden folders, so that the backup and the wire limit
// export the same items), registers the simulator's tenant twice, once with
// "transport": "ews" and once with "transport": "graph", then at each added
// latency per call (LATENCIES, a comma-separated list of milliseconds, default
// "0,50"):
// - measures the wire limit with one export request in flight and with
//   ews.export_concurrency (default 4) in flight: one thread lists every item
//   (not timed), then sends the same export requests as the module's one
//   export thread (the items of every mailbox in calls of ews.batch_size x
//   ews.export_concurrency ids, which the client splits into batches of
//   ews.batch_size run side by side) to the same simulator and discards the
//   answers; over EWS these are ExportItems requests, and the Graph wire limit
//   (ews.export_concurrency in flight) sends exportItems requests;
// - backs the EWS tenant up with `backup-agent backup --all-mailboxes`: on 1
//   channel with ews.export_concurrency 1 and ews.list_ahead 0 (one request of
//   any kind in flight), on 1 channel with ews.export_concurrency 1 (one export
//   request in flight, folders listed ahead), then with the default settings on
//   1 and 4 channels, then on 4 channels without listing folders ahead of the
//   stream (ews.list_ahead 0; each a new backup set);
// - backs the Graph tenant up with the default settings on 1 and 4 channels.
// Each run is a child process, so its peak RSS is its own. Prints one Markdown
// table row per run: transport, items/s, MiB/s, time against the wire limit's
// over the same transport with the same requests in flight, peak RSS; then,
// per latency, how much faster the default settings on 4 channels are than
// each of the two 1-channel runs, and how Graph's 4-channel run compares with
// EWS's.

#include "agent_run.h"
#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backup-agent/graph_users_lister.h"
#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"
#include "host/office365/office365_tenant_registry.h"
#include "support/exo_sim_process.h"

#include <ace/Log_Msg.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

extern char** environ;

namespace
{
const char* const tenant_uuid = "4c1d2e3f-5a6b-4c7d-8e9f-0a1b2c3d4e5f";
// The same tenant registered with "transport": "graph".
const char* const graph_tenant_uuid = "6e2f3a4b-7c8d-4e9f-8a0b-1c2d3e4f5a6b";

struct Figures
{
  bool ok = false;
  long exported = 0;  // items the simulator exported during the run
  double seconds = 0;
  double items = 0;
  double mib = 0;
  long rss_mib = 0;
};

// Runs the agent with `args`, its summary (--json) into `out`; the figures of
// the run.
Figures run_backup(const std::vector<std::string>& args, const std::string& out)
{
  const Agent_Run run = run_agent(args, out);
  Figures f;
  f.seconds = run.seconds;
  f.rss_mib = run.rss_mib;
  if (!run.ok)
    return f;
  f.ok = true;
  f.items = run.summary["items"].get<double>();
  f.mib = run.summary["bytes"].get<double>() / (1024.0 * 1024.0);
  return f;
}

// In a child process: lists every item of the tenant, then times exporting all
// of them from one thread in calls of ews.batch_size x `concurrency` ids, up to
// `concurrency` export requests in flight over the entry's transport, dropping
// each answer.
Figures wire_limit(const Office365_Auth_Entry& entry, int concurrency, const std::string& out)
{
  const pid_t pid = ::fork();
  if (pid == 0)
  {
    EWS_Params::set_export_concurrency(concurrency);
    std::vector<std::string> mailboxes;
    std::string error;
    Graph_Users_Lister lister(entry);
    EWS_Client_Ptr ews;
    const std::string scope =
      entry.transport == "graph" ? EWS_Client::graph_token_scope(entry) : ews_default_scope(entry.ews_endpoint);
    if (!lister.list(mailboxes, error) ||
        !create_ews_client("", Secure_String(), std::make_shared<Office365_Auth>(entry, scope), ews, ""))
      ::_exit(1);
    std::vector<std::pair<std::string, EWS_Items>> items;  // by mailbox
    for (const std::string& mailbox : mailboxes)
    {
      if (!ews->impersonate(mailbox))
        ::_exit(1);
      items.emplace_back(mailbox, EWS_Items());
      std::vector<std::string> folders = {""};
      while (!folders.empty())
      {
        const std::string folder = folders.back();
        folders.pop_back();
        EWS_Folders children;
        if (!ews->list_folders(folder, children, true))
          ::_exit(1);
        for (const EWS_Folder& child : children)
          folders.push_back(child.id);
        if (!folder.empty() && !ews->list_items(folder, make_ews_item_appender(items.back().second), 0, 1000000))
          ::_exit(1);
      }
    }
    const size_t batch = static_cast<size_t>(EWS_Params::batch_size() * EWS_Params::export_concurrency());
    double count = 0, bytes = 0;
    const double start = bench_now();
    for (const auto& mailbox : items)
    {
      ews->impersonate(mailbox.first);
      for (size_t i = 0; i < mailbox.second.size(); i += batch)
      {
        EWS_Export_Requests requests;
        for (size_t k = i; k < mailbox.second.size() && k < i + batch; ++k)
        {
          requests.emplace_back();
          requests.back().id = mailbox.second[k].id;
          requests.back().size = mailbox.second[k].size;
        }
        if (!ews->export_items(requests))
          ::_exit(1);
        for (const EWS_Export_Request& r : requests)
          if (r.data.ptr)
          {
            ++count;
            bytes += static_cast<double>(r.data.size);
          }
      }
    }
    std::ofstream(out) << (bench_now() - start) << " " << count << " " << bytes << "\n";
    ::_exit(0);
  }
  Figures f;
  int status = 0;
  struct rusage usage = {};
  if (pid < 0 || ::wait4(pid, &status, 0, &usage) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
  {
    std::fprintf(stderr, "the wire-limit loop failed\n");
    return f;
  }
  double bytes = 0;
  std::ifstream in(out);
  f.ok = static_cast<bool>(in >> f.seconds >> f.items >> bytes);
  f.mib = bytes / (1024.0 * 1024.0);
  f.rss_mib = usage.ru_maxrss / 1024;
  return f;
}

void row(int latency, const char* transport, const std::string& what, const Figures& f, const Figures& wire)
{
  if (!f.ok)
  {
    std::printf("| %d ms | %s | %s | failed | | | | | | |\n", latency, transport, what.c_str());
    return;
  }
  std::printf("| %d ms | %s | %s | %.0f | %ld | %.1f | %.0f | %.1f | %.2f | %ld |\n", latency, transport, what.c_str(),
              f.items, f.exported, f.mib, f.items / f.seconds, f.mib / f.seconds,
              wire.ok ? f.seconds / wire.seconds : 0.0, f.rss_mib);
  std::fflush(stdout);
}

std::vector<int> parse_latencies(const std::string& text)
{
  std::vector<int> out;
  std::stringstream in(text);
  std::string one;
  while (std::getline(in, one, ','))
    if (!one.empty())
      out.push_back(std::atoi(one.c_str()));
  return out;
}
}  // namespace

int main(int argc, char** argv)
{
  const std::string mailboxes = argc > 1 ? argv[1] : "8";
  const std::string large = argc > 2 ? argv[2] : "4";
  const std::string large_max = argc > 3 ? argv[3] : "24";
  const std::vector<int> latencies = parse_latencies(argc > 4 ? argv[4] : "0,50");
  ACE_LOG_MSG->priority_mask(LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY, ACE_Log_Msg::PROCESS);

  Backupd_Process backupd;
  if (!backupd.add_pool("pool-1", "main") || !backupd.start())
  {
    std::fprintf(stderr, "backupd did not start\n");
    return 1;
  }
  Exo_Sim_Process sim({"--profile", "demo", "--mailboxes", mailboxes, "--renamed-users", "0", "--hidden-folders", "0",
                       "--large-item-mib", large, "--large-item-max-mib", large_max});
  const std::string dir = backupd.root();
  ::mkdir((dir + "/state").c_str(), 0700);
  Office365_Tenant_Registry tenants(Office365_Tenant_Registry::file_in(dir + "/state"));
  std::string error;
  tenants.add(tenant_uuid, sim.entry());
  Office365_Auth_Entry graph_entry = sim.entry();
  graph_entry.transport = "graph";
  tenants.add(graph_tenant_uuid, graph_entry);
  if (!tenants.save(error))
  {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  const auto config = [&](const std::string& name, const std::string& settings)
  {
    const std::string path = dir + "/" + name;
    std::ofstream(path) << "{\"state_dir\": \"" << dir << "/state\", \"host_id\": \"host-1\", \"backup_server\": "
                        << "{\"url\": \"" << backupd.url() << "\", \"access_key\": \"" << Backupd_Process::key()
                        << "\"}, \"settings\": " << settings << "}";
    return path;
  };
  const std::string defaults = config("agent.json", "{}");
  const std::string serial = config("agent-serial.json", "{\"ews\": {\"export_concurrency\": 1}}");
  const std::string no_ahead = config("agent-no-ahead.json", "{\"ews\": {\"list_ahead\": 0}}");
  // One request of any kind in flight: one export call at a time and every folder listed only
  // when the stream reaches it.
  const std::string one_request =
    config("agent-one-request.json", "{\"ews\": {\"export_concurrency\": 1, \"list_ahead\": 0}}");
  const int concurrency = EWS_Params::export_concurrency();

  std::printf(
    "| latency | transport | run | items | exported | MiB | items/s | MiB/s | time / wire limit | peak RSS MiB |\n"
    "|---|---|---|---|---|---|---|---|---|---|\n");
  const auto exported = [&]() { return sim.status()["items_exported"].get<long>(); };
  const auto backup = [&](const std::string& settings, int channels, const char* tenant = tenant_uuid)
  {
    const long before = exported();
    Figures f = run_backup({"--config", settings, "backup", "--tenant", tenant, "--all-mailboxes", "--pool", "pool-1",
                            "--channels", std::to_string(channels), "--json"},
                           dir + "/backup.out");
    f.exported = exported() - before;
    return f;
  };
  std::vector<std::string> speedups;
  for (int latency : latencies)
  {
    sim.set_faults({{"latency_ms", latency}});
    long before = exported();
    Figures wire_one = wire_limit(sim.entry(), 1, dir + "/wire.out");
    wire_one.exported = exported() - before;
    row(latency, "ews", "wire limit, 1 request in flight", wire_one, wire_one);
    before = exported();
    Figures wire = wire_limit(sim.entry(), concurrency, dir + "/wire.out");
    wire.exported = exported() - before;
    const std::string in_flight = std::to_string(concurrency) + " requests in flight";
    row(latency, "ews", "wire limit, " + in_flight, wire, wire);

    const Figures strict_one = backup(one_request, 1);
    row(latency, "ews", "backup, 1 channel, ews.export_concurrency 1, ews.list_ahead 0", strict_one, wire_one);
    const Figures serial_one = backup(serial, 1);
    row(latency, "ews", "backup, 1 channel, ews.export_concurrency 1", serial_one, wire_one);
    row(latency, "ews", "backup, 1 channel, defaults", backup(defaults, 1), wire);
    const Figures four = backup(defaults, 4);
    row(latency, "ews", "backup, 4 channels, defaults", four, wire);
    row(latency, "ews", "backup, 4 channels, ews.list_ahead 0", backup(no_ahead, 4), wire);

    before = exported();
    Figures graph_wire = wire_limit(graph_entry, concurrency, dir + "/wire.out");
    graph_wire.exported = exported() - before;
    row(latency, "graph", "wire limit, " + in_flight, graph_wire, graph_wire);
    row(latency, "graph", "backup, 1 channel, defaults", backup(defaults, 1, graph_tenant_uuid), graph_wire);
    const Figures graph_four = backup(defaults, 4, graph_tenant_uuid);
    row(latency, "graph", "backup, 4 channels, defaults", graph_four, graph_wire);
    if (serial_one.ok && four.ok)
    {
      char line[160];
      std::snprintf(line, sizeof line,
                    "%d ms: 4 channels with defaults took %.1f s, 1 channel with one request %.1f s: %.2fx", latency,
                    four.seconds, serial_one.seconds, serial_one.seconds / four.seconds);
      speedups.push_back(line);
    }
    if (strict_one.ok && four.ok)
    {
      char line[200];
      std::snprintf(line, sizeof line,
                    "%d ms: 4 channels with defaults took %.1f s, 1 channel with one request of any kind %.1f s: %.2fx",
                    latency, four.seconds, strict_one.seconds, strict_one.seconds / four.seconds);
      speedups.push_back(line);
    }
    if (graph_four.ok && four.ok)
    {
      char line[200];
      std::snprintf(
        line, sizeof line,
        "%d ms: 4 channels with defaults took %.1f s over Graph, %.1f s over EWS: Graph's time is %.2fx EWS's", latency,
        graph_four.seconds, four.seconds, graph_four.seconds / four.seconds);
      speedups.push_back(line);
    }
  }
  std::printf("\n");
  for (const std::string& line : speedups)
    std::printf("%s\n", line.c_str());
  return 0;
}
