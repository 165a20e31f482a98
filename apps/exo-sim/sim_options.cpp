#include "apps/exo-sim/sim_options.h"

#include <cstdlib>
#include <functional>
#include <map>

namespace exo_sim
{

const char* sim_usage()
{
  return "usage: exo-sim [--listen ADDR] [--port N] [--seed N] [--profile tiny|small|demo|large]\n"
         "  [--mailboxes N] [--depth N] [--fanout N] [--items N] [--page-size N] [--large-item-mib N]\n"
         "  [--large-item-max-mib N] [--renamed-users N] [--hidden-folders 0|1]\n"
         "  [--token-lifetime S] [--tenant-id ID] [--tenant-domain D] [--tenant-initial-domain D]\n"
         "  [--client-id ID] [--client-secret S]\n"
         "  [--registration ID:SECRET]... [--basic-account USER:PASSWORD]... [--state-dir DIR]\n"
         "  [--request-log FILE|-] [--threads N] [--keep-alive-max N] [--keep-alive-timeout S]\n"
         "  [--import-session-lifetime S]\n"
         "  faults: [--fault-seed N] [--busy-rate F] [--busy-backoff-ms N] [--ews-503-rate F]\n"
         "  [--graph-503-rate F] [--graph-429-rate F] [--retry-after S] [--partial-page-rate F]\n"
         "  [--truncate-rate F] [--drop-rate F] [--fail-item ID]... [--fail-item-rate F]\n"
         "  [--fail-item-code CODE] [--latency-ms N] [--max-concurrency N]\n"
         "  [--graph-max-concurrency N] [--graph-drop-rate F]\n"
         "See docs/exo-sim.md.\n";
}

bool data_profile_preset(const std::string& name, Data_Profile& p)
{
  Data_Profile d;
  d.name = name;
  if (name == "tiny")
  {
    d.mailboxes = 2;
    d.depth = 1;
    d.fanout = 2;
    d.items = 5;
    d.large_items = 1;
    d.large_item_mib = 3;
  }
  else if (name == "small")
  {
    d.mailboxes = 5;
    d.depth = 2;
    d.fanout = 2;
    d.items = 12;
    d.large_items = 1;
    d.large_item_mib = 3;
    d.renamed_users = 3;
    d.hidden_folders = true;
  }
  else if (name == "demo")
  {
    d.mailboxes = 5;
    d.depth = 2;
    d.fanout = 3;
    d.items = 25;
    d.large_items = 2;
    d.large_item_mib = 2;
    d.renamed_users = 3;
    d.hidden_folders = true;
  }
  else if (name == "large")
  {
    d.mailboxes = 50;
    d.depth = 3;
    d.fanout = 3;
    d.items = 100;
    d.large_items = 4;
    d.large_item_mib = 25;
    d.large_item_max_mib = 150;
    d.renamed_users = 6;
    d.hidden_folders = true;
  }
  else
  {
    return false;
  }
  p = d;
  return true;
}

namespace
{

bool to_int(const std::string& s, int& out)
{
  char* end = nullptr;
  long v = std::strtol(s.c_str(), &end, 10);
  if (s.empty() || *end != '\0' || v < 0 || v > 1000000000L)
    return false;
  out = static_cast<int>(v);
  return true;
}

bool to_u64(const std::string& s, uint64_t& out)
{
  char* end = nullptr;
  unsigned long long v = std::strtoull(s.c_str(), &end, 10);
  if (s.empty() || *end != '\0')
    return false;
  out = v;
  return true;
}

bool to_rate(const std::string& s, double& out)
{
  char* end = nullptr;
  double v = std::strtod(s.c_str(), &end);
  if (s.empty() || *end != '\0' || !(v >= 0.0 && v <= 1.0))
    return false;
  out = v;
  return true;
}

bool split_pair(const std::string& s, std::string& a, std::string& b)
{
  auto colon = s.find(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == s.size())
    return false;
  a = s.substr(0, colon);
  b = s.substr(colon + 1);
  return true;
}

using Flag_Handler = std::function<bool(const std::string&)>;

std::map<std::string, Flag_Handler> flag_table(Sim_Options& o, std::string& profile_name, Registration& main_reg)
{
  auto i = [](int& field) { return [&field](const std::string& v) { return to_int(v, field); }; };
  auto r = [](double& field) { return [&field](const std::string& v) { return to_rate(v, field); }; };
  auto s = [](std::string& field)
  {
    return [&field](const std::string& v)
    {
      field = v;
      return !v.empty();
    };
  };
  Fault_Settings& f = o.faults;
  Data_Profile& p = o.profile;
  return {
    {"--listen", s(o.listen)},
    {"--port", [&o](const std::string& v) { return to_int(v, o.port) && o.port <= 65535; }},
    {"--seed", [&o](const std::string& v) { return to_u64(v, o.seed); }},
    {"--profile", s(profile_name)},
    {"--mailboxes", i(p.mailboxes)},
    {"--depth", i(p.depth)},
    {"--fanout", i(p.fanout)},
    {"--items", i(p.items)},
    {"--page-size", i(p.page_size)},
    {"--large-item-mib", i(p.large_item_mib)},
    {"--large-item-max-mib", i(p.large_item_max_mib)},
    {"--renamed-users", i(p.renamed_users)},
    {"--hidden-folders",
     [&p](const std::string& v)
     {
       p.hidden_folders = v == "1";
       return v == "0" || v == "1";
     }},
    {"--token-lifetime", i(o.token_lifetime)},
    {"--tenant-id", s(o.tenant.tenant_id)},
    {"--tenant-domain", s(o.tenant.domain)},
    {"--tenant-initial-domain", s(o.tenant.initial_domain)},
    {"--client-id", s(main_reg.client_id)},
    {"--client-secret", s(main_reg.client_secret)},
    {"--registration",
     [&o](const std::string& v)
     {
       Registration reg;
       if (!split_pair(v, reg.client_id, reg.client_secret))
         return false;
       o.tenant.registrations.push_back(reg);
       return true;
     }},
    {"--basic-account",
     [&o](const std::string& v)
     {
       Basic_Account acc;
       if (!split_pair(v, acc.user, acc.password))
         return false;
       o.tenant.basic_accounts.push_back(acc);
       return true;
     }},
    {"--state-dir", s(o.state_dir)},
    {"--request-log", s(o.request_log)},
    {"--threads", [&o](const std::string& v) { return to_int(v, o.threads) && o.threads > 0; }},
    {"--keep-alive-max", [&o](const std::string& v) { return to_int(v, o.keep_alive_max) && o.keep_alive_max > 0; }},
    {"--keep-alive-timeout",
     [&o](const std::string& v) { return to_int(v, o.keep_alive_timeout) && o.keep_alive_timeout > 0; }},
    {"--fault-seed", [&f](const std::string& v) { return to_u64(v, f.fault_seed); }},
    {"--busy-rate", r(f.busy_rate)},
    {"--busy-backoff-ms", i(f.busy_backoff_ms)},
    {"--ews-503-rate", r(f.ews_503_rate)},
    {"--graph-503-rate", r(f.graph_503_rate)},
    {"--graph-429-rate", r(f.graph_429_rate)},
    {"--retry-after", i(f.retry_after)},
    {"--partial-page-rate", r(f.partial_page_rate)},
    {"--truncate-rate", r(f.truncate_rate)},
    {"--drop-rate", r(f.drop_rate)},
    {"--fail-item",
     [&f](const std::string& v)
     {
       f.fail_items.insert(v);
       return !v.empty();
     }},
    {"--fail-item-rate", r(f.fail_item_rate)},
    {"--fail-item-code", s(f.fail_item_code)},
    {"--latency-ms", i(f.latency_ms)},
    {"--max-concurrency", i(f.max_concurrency)},
    {"--graph-max-concurrency", i(f.graph_max_concurrency)},
    {"--graph-drop-rate", r(f.graph_drop_rate)},
    {"--import-session-lifetime", i(o.import_session_lifetime)},
  };
}

// Profile flags override the preset, so the preset is applied first, then the flags again.
bool apply_flags(int argc, const char* const* argv, Sim_Options& o, std::string& profile_name, Registration& main_reg,
                 std::string& error)
{
  auto table = flag_table(o, profile_name, main_reg);
  for (int k = 1; k < argc; ++k)
  {
    std::string flag = argv[k];
    std::string value;
    auto eq = flag.find('=');
    if (eq != std::string::npos)
    {
      value = flag.substr(eq + 1);
      flag = flag.substr(0, eq);
    }
    else if (k + 1 < argc)
    {
      value = argv[++k];
    }
    else
    {
      error = "missing value for " + flag;
      return false;
    }
    auto it = table.find(flag);
    if (it == table.end())
    {
      error = "unknown option " + flag;
      return false;
    }
    if (!it->second(value))
    {
      error = "bad value for " + flag;
      return false;
    }
  }
  return true;
}

}  // namespace

bool parse_sim_options(int argc, const char* const* argv, Sim_Options& options, std::string& error)
{
  for (int k = 1; k < argc; ++k)
  {
    std::string a = argv[k];
    if (a == "--help" || a == "-h")
    {
      error = "help";
      return false;
    }
  }
  Sim_Options o;
  std::string profile_name = "small";
  Registration main_reg{"3f2b8c1e-5a4d-4c6f-8e7b-9a0d1c2e3f45", "exo-sim-demo-secret"};
  if (!apply_flags(argc, argv, o, profile_name, main_reg, error))
    return false;
  if (!data_profile_preset(profile_name, o.profile))
  {
    error = "unknown profile " + profile_name;
    return false;
  }
  // Second pass: explicit sizes win over the preset.
  Sim_Options again = o;
  again.tenant.registrations.clear();
  again.tenant.basic_accounts.clear();
  again.faults.fail_items.clear();
  if (!apply_flags(argc, argv, again, profile_name, main_reg, error))
    return false;
  again.tenant.registrations.insert(again.tenant.registrations.begin(), main_reg);
  options = again;
  return true;
}

}  // namespace exo_sim
