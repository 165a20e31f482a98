// Peak memory of the EWS client exporting large items: starts exo-sim with the
// `large` profile (items of 25-150 MiB), finds the "Large items" folder of one
// mailbox and exports each of its items alone, then all of them in one call, and
// reports the process's peak RSS against the bytes of the largest item. The
// ExportItems answer is parsed as it arrives and each item's base64 is decoded
// straight into its buffer, so a request should cost about its items' bytes.
//
// Usage: bench_export_large   (run by hand; prints one line per step)

#include "host/ews/ews_client.h"
#include "host/office365/office365_auth.h"
#include "support/exo_sim_process.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

namespace
{
long peak_rss_mib()
{
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;  // kilobytes on Linux
}

const EWS_Folder* find_folder(const EWS_Folders& folders, const std::string& name)
{
  for (const EWS_Folder& f : folders)
  {
    if (f.display_name == name)
      return &f;
    if (const EWS_Folder* sub = find_folder(f.subfolders, name))
      return sub;
  }
  return nullptr;
}

bool export_timed(EWS_Client& client, EWS_Export_Requests& requests, const char* what)
{
  const auto start = std::chrono::steady_clock::now();
  if (!client.export_items(requests))
  {
    std::fprintf(stderr, "export failed: %s\n", client.last_error().c_str());
    return false;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  long long bytes = 0;
  for (const EWS_Export_Request& r : requests)
    bytes += r.data.ptr ? static_cast<long long>(r.data.size) : 0;
  std::printf("%-28s %4zu item(s) %8.1f MiB in %6.2f s (%6.1f MiB/s), peak RSS %5ld MiB\n", what, requests.size(),
              bytes / 1048576.0, seconds, bytes / 1048576.0 / seconds, peak_rss_mib());
  return true;
}
}  // namespace

int main()
{
  Exo_Sim_Process sim({"--profile", "large", "--mailboxes", "1", "--renamed-users", "0", "--hidden-folders", "0"});
  auto auth = std::make_shared<Office365_Auth>(sim.entry(), sim.base() + "/.default");
  EWS_Client client;
  if (!client.init(sim.entry().ews_endpoint, "", Secure_String(), auth, sim.mailbox("admin").c_str()))
    return 1;
  EWS_Folders tree;
  if (!client.list_folders(10, tree, false))
    return 1;
  const EWS_Folder* large = find_folder(tree, "Large items");
  if (large == nullptr)
  {
    std::fprintf(stderr, "no \"Large items\" folder\n");
    return 1;
  }
  EWS_Items items;
  if (!client.list_items(large->id, make_ews_item_appender(items), 0, 1000))
    return 1;
  std::printf("start: peak RSS %ld MiB\n", peak_rss_mib());
  long long largest = 0;
  for (const EWS_Item& item : items)
  {
    EWS_Export_Requests one(1);
    one[0].id = item.id;
    one[0].size = item.size;
    largest = std::max(largest, item.size);
    if (!export_timed(client, one, ("one item of " + std::to_string(item.size >> 20) + " MiB").c_str()))
      return 1;
  }
  EWS_Export_Requests all(items.size());
  for (size_t i = 0; i < items.size(); ++i)
  {
    all[i].id = items[i].id;
    all[i].size = items[i].size;
  }
  if (!export_timed(client, all, "all in one call"))
    return 1;
  std::printf("largest item %lld MiB\n", largest >> 20);
  return 0;
}
