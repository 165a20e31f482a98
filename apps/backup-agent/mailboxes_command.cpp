#include "apps/backup-agent/mailboxes_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/rpc_caller.h"

namespace
{
// Pages asked for at most: far beyond any tenant, it only keeps a service that
// always answers a further token from looping for ever.
const int MAX_PAGES = 1000000;
}  // namespace

const char* Mailboxes_Command::usage()
{
  return "usage: backup-agent [--config FILE] mailboxes --tenant UUID [--search TEXT] [--page-size N] [--json]\n"
         "Lists the mailboxes of a registered tenant (Microsoft Graph users), all pages of\n"
         "N mailboxes (1 to 999, 999 by default).\n";
}

int Mailboxes_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  std::string tenant, search, error;
  bool json = false, help = false;
  int page_size = 999;
  bool ok = Flag_Reader(help)
              .value("--tenant", tenant)
              .value("--search", search)
              .number("--page-size", page_size, 1, 999)
              .flag("--json", json)
              .read(args, error);
  if (ok && !help && tenant.empty())
  {
    error = "--tenant is required";
    ok = false;
  }
  if (!ok)
  {
    err << "backup-agent mailboxes: " << error << "\n" << usage();
    return 64;
  }
  if (help)
  {
    out << usage();
    return 0;
  }
  RPC_Caller caller(module_);
  if (!caller.init(error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  nlohmann::ordered_json all = {{"total", 0}, {"rows", nlohmann::ordered_json::array()}};
  std::string skip_token;
  for (int page = 0; page < MAX_PAGES; ++page)
  {
    nlohmann::ordered_json params = {{"uuid", tenant}, {"limit", page_size}};
    if (!skip_token.empty())
      params["skip_token"] = skip_token;
    if (!search.empty())
      params["search"] = search;
    nlohmann::ordered_json result;
    if (!caller.call("exchange.list_mailboxes", params, result, error))
    {
      err << "error: " << error << "\n";
      return 1;
    }
    if (page == 0 && result.contains("total"))
      all["total"] = result["total"];
    if (result.contains("rows") && result["rows"].is_array())
      for (const auto& row : result["rows"])
        all["rows"].push_back(row);
    if (!result.contains("skip_token") || !result["skip_token"].is_string() ||
        result["skip_token"].get<std::string>().empty())
      break;
    skip_token = result["skip_token"].get<std::string>();
  }
  if (json)
  {
    out << all.dump() << "\n";
    return 0;
  }
  for (const auto& row : all["rows"])
    out << row.value("mailbox", "") << "\n";
  return 0;
}
