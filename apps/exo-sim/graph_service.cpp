#include "apps/exo-sim/graph_service.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <random>

#include "apps/exo-sim/ascii_case.h"
#include "apps/exo-sim/url_encode.h"
#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/odata_filter.h"
#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

namespace
{

const std::string k_token_prefix("DSpt\x02\x00\x01\x00", 8);  // encodes as "RFNwdAIAAQA..."

std::string trim(const std::string& s)
{
  size_t a = s.find_first_not_of(' ');
  size_t b = s.find_last_not_of(' ');
  return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

std::vector<std::string> split(const std::string& s, const std::string& sep)
{
  std::vector<std::string> out;
  size_t pos = 0;
  while (true)
  {
    size_t at = s.find(sep, pos);
    out.push_back(s.substr(pos, at == std::string::npos ? std::string::npos : at - pos));
    if (at == std::string::npos)
      break;
    pos = at + sep.size();
  }
  return out;
}

// Token-prefix match, as Graph's $search on directory objects behaves: "ali" finds
// "alice.archer@..." and "archer" finds it too.
bool token_prefix_match(const std::string& value, const std::string& term)
{
  std::string v = ascii_lower(value), t = ascii_lower(term);
  if (t.empty())
    return true;
  for (size_t i = 0; i < v.size(); ++i)
  {
    bool token_start = i == 0 || !std::isalnum(static_cast<unsigned char>(v[i - 1]));
    if (token_start && v.compare(i, t.size(), t) == 0)
      return true;
  }
  return false;
}

struct Search_Clause
{
  std::string property;
  std::string term;
};

bool parse_search(const std::string& text, std::vector<Search_Clause>& clauses)
{
  for (const auto& part : split(text, " OR "))
  {
    std::string p = trim(part);
    if (p.size() < 2 || p.front() != '"' || p.back() != '"')
      return false;
    p = p.substr(1, p.size() - 2);
    auto colon = p.find(':');
    if (colon == std::string::npos)
      return false;
    Search_Clause c{p.substr(0, colon), p.substr(colon + 1)};
    if (c.property != "userPrincipalName" && c.property != "displayName" && c.property != "mail")
      return false;
    clauses.push_back(c);
  }
  return !clauses.empty();
}

// The users listing's $filter as Microsoft's advanced query reference describes it for the
// properties the simulator keeps: eq (and ge, le on the names) works by default, on proxyAddresses
// through any(); ne needs the advanced query parameters (ConsistencyLevel: eventual and
// $count=true); anything else is refused for its property.
bool check_user_filter(const Odata_Filter& filter, bool advanced, std::string& code, std::string& message)
{
  for (const auto& [property, op] : filter.comparisons())
  {
    const bool id_or_collection = property == "id" || property == "proxyAddresses";
    if (op == "ne" && !advanced && property != "proxyAddresses")
    {
      code = "Request_UnsupportedQuery";
      message =
        "Operator 'ne' is not supported because the required parameters might be missing. Try adding "
        "$count=true query parameter and ConsistencyLevel:eventual header. Refer to "
        "https://aka.ms/graph-docs/advanced-queries for more information";
      return false;
    }
    if (op == "gt" || op == "lt" || (id_or_collection && op != "eq" && op != "ne") ||
        (property == "proxyAddresses" && op == "ne"))
    {
      code = "Request_UnsupportedQuery";
      message =
        "Unsupported or invalid query filter clause specified for property '" + property + "' of resource 'User'.";
      return false;
    }
  }
  return true;
}

}  // namespace

Graph_Service::Graph_Service(Mailbox_Store& store, Token_Service& tokens) : store_(store), tokens_(tokens) {}

Sim_Reply Graph_Service::error(int status, const std::string& code, const std::string& message,
                               const std::string& client_request_id)
{
  thread_local std::mt19937_64 rng(std::random_device{}());
  char when[32];
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &tm);
  char request_id[40];
  uint64_t a = rng(), b = rng();
  std::snprintf(request_id, sizeof request_id, "%08x-%04x-4%03x-8%03x-%012llx", unsigned(a >> 32),
                unsigned((a >> 16) & 0xffff), unsigned(a & 0xfff), unsigned((b >> 52) & 0xfff),
                static_cast<unsigned long long>(b & 0xffffffffffffULL));
  nlohmann::ordered_json j;
  j["error"]["code"] = code;
  j["error"]["message"] = message;
  j["error"]["innerError"]["date"] = when;
  j["error"]["innerError"]["request-id"] = request_id;
  j["error"]["innerError"]["client-request-id"] = client_request_id.empty() ? request_id : client_request_id;
  Sim_Reply r;
  r.status = status;
  r.body = j.dump();
  r.code = code;
  return r;
}

Sim_Reply Graph_Service::unauthorized(const std::string& reason, const std::string& client_request_id)
{
  Sim_Reply r = error(401, "InvalidAuthenticationToken", reason, client_request_id);
  r.headers.push_back(
    {"WWW-Authenticate",
     "Bearer realm=\"\", authorization_uri=\"https://login.microsoftonline.com/common/oauth2/authorize\", "
     "client_id=\"00000003-0000-0000-c000-000000000000\""});
  return r;
}

Sim_Reply Graph_Service::list_users(const Graph_Request& request)
{
  const std::string& crid = request.client_request_id;
  std::string reason;
  if (!tokens_.check(request.authorization, k_audience_graph, reason))
    return unauthorized(reason, crid);
  bool eventual = ascii_lower(request.consistency_level) == "eventual";
  std::vector<std::string> select;
  std::string order_by = "userPrincipalName";
  bool descending = false;
  bool count = false;
  int top = 100;
  std::string search, skiptoken, filter_text;
  bool has_search = false, has_filter = false, has_order = false;
  std::vector<std::string> query_pairs;  // the query without $skiptoken, to bind tokens to their query
  std::vector<std::pair<std::string, std::string>> carried;
  for (const auto& kv : request.params)
  {
    std::string key = ascii_lower(kv.first);
    if (key != "$skiptoken")
    {
      carried.push_back(kv);
      query_pairs.push_back(key + "=" + kv.second);
    }
    if (key == "$select")
    {
      for (const auto& s : split(kv.second, ","))
        select.push_back(trim(s));
    }
    else if (key == "$orderby")
    {
      auto parts = split(trim(kv.second), " ");
      order_by = parts[0];
      if (parts.size() > 2 || (parts.size() == 2 && parts[1] != "asc" && parts[1] != "desc"))
        return error(400, "Request_BadRequest", "Invalid $orderby expression '" + kv.second + "'.", crid);
      descending = parts.size() == 2 && parts[1] == "desc";
      has_order = true;
    }
    else if (key == "$count")
    {
      if (kv.second != "true" && kv.second != "false")
        return error(400, "Request_BadRequest", "Invalid value '" + kv.second + "' for $count.", crid);
      count = kv.second == "true";
    }
    else if (key == "$top")
    {
      const std::string& v = kv.second;
      bool digits = !v.empty() && v.size() < 10 && v.find_first_not_of("0123456789") == std::string::npos;
      top = digits ? std::stoi(v) : -1;
      if (top < 1 || top > 999)
        return error(400, "Request_BadRequest",
                     "Invalid page size specified: '" + v + "'. Must be between 1 and 999 inclusive.", crid);
    }
    else if (key == "$search")
    {
      search = kv.second;
      has_search = true;
    }
    else if (key == "$filter")
    {
      filter_text = kv.second;
      has_filter = true;
    }
    else if (key == "$skiptoken")
    {
      skiptoken = kv.second;
    }
    else if (!key.empty() && key[0] == '$')
    {
      return error(400, "Request_UnsupportedQuery", "Query option '" + kv.first + "' is not supported.", crid);
    }
  }
  if (has_search && !eventual)
    return error(400, "Request_UnsupportedQuery",
                 "Request with $search query parameter only works through MSGraph with a special request header: "
                 "'ConsistencyLevel: eventual'",
                 crid);
  if (order_by != "userPrincipalName" && order_by != "displayName")
    return error(400, "Request_UnsupportedQuery", "Sorting not supported for '" + order_by + "'.", crid);
  std::vector<Search_Clause> clauses;
  if (has_search && !parse_search(search, clauses))
    return error(400, "Request_BadRequest", "Invalid search query '" + search + "'.", crid);
  Odata_Filter filter;
  if (has_filter)
  {
    std::string why, code;
    Odata_Filter::Grammar grammar;
    grammar.any_of_groups = true;
    grammar.collections = {"proxyAddresses"};
    if (!filter.parse(filter_text, {"id", "displayName", "givenName", "surname", "mail", "userPrincipalName"}, why,
                      grammar))
      return error(400, "Request_BadRequest", why, crid);
    const bool advanced = eventual && count;
    if (!check_user_filter(filter, advanced, code, why))
      return error(400, code, why, crid);
    // Filtering and sorting one directory listing together is an advanced query only.
    if (has_order && !advanced)
      return error(400, "Request_UnsupportedQuery", "Sorting not supported for current query.", crid);
  }
  nlohmann::ordered_json probe = store_.mailbox_count() > 0 ? store_.graph_user(0) : nlohmann::ordered_json::object();
  for (const auto& s : select)
    if (!probe.contains(s))
      return error(400, "Request_BadRequest",
                   "Could not find a property named '" + s + "' on type 'microsoft.graph.user'.", crid);

  std::sort(query_pairs.begin(), query_pairs.end());
  std::string query_key;
  for (const auto& p : query_pairs)
    query_key += p + "&";
  uint64_t bind = hash_text(query_key);
  long offset = 0;
  if (!skiptoken.empty())
  {
    std::string raw;
    if (!base64_decode(skiptoken, raw) || raw.compare(0, k_token_prefix.size(), k_token_prefix) != 0)
      return error(400, "Directory_ExpiredPageToken", "The specified page token value has expired or is invalid.",
                   crid);
    auto parts = split(raw.substr(k_token_prefix.size()), ":");
    if (parts.size() != 2 || parts[0].empty() || parts[0].find_first_not_of("0123456789") != std::string::npos ||
        parts[1] != std::to_string(bind))
      return error(400, "Directory_ExpiredPageToken", "The specified page token value has expired or is invalid.",
                   crid);
    offset = std::stol(parts[0]);
  }

  std::vector<nlohmann::ordered_json> users;
  for (int m = 0; m < store_.mailbox_count(); ++m)
  {
    nlohmann::ordered_json u = store_.graph_user(m);
    bool match = clauses.empty();
    for (const auto& c : clauses)
      if (token_prefix_match(u[c.property].get<std::string>(), c.term))
        match = true;
    if (match && filter.matches(u))
      users.push_back(std::move(u));
  }
  std::stable_sort(users.begin(), users.end(),
                   [&](const nlohmann::ordered_json& a, const nlohmann::ordered_json& b)
                   {
                     std::string x = ascii_lower(a[order_by].get<std::string>()),
                                 y = ascii_lower(b[order_by].get<std::string>());
                     return descending ? y < x : x < y;
                   });

  nlohmann::ordered_json out;
  std::string context = "https://graph.microsoft.com/v1.0/$metadata#users";
  if (!select.empty())
  {
    context += "(";
    for (size_t k = 0; k < select.size(); ++k)
      context += (k ? "," : "") + select[k];
    context += ")";
  }
  out["@odata.context"] = context;
  if (count && eventual && skiptoken.empty())
    out["@odata.count"] = users.size();
  long end = std::min<long>(long(users.size()), offset + top);
  if (end < long(users.size()))
  {
    std::string link = "http://" + request.host + "/v1.0/users?";
    for (const auto& kv : carried)
      link += url_encode(kv.first, "$,:") + "=" + url_encode(kv.second, "$,:") + "&";
    std::string token = base64_encode(k_token_prefix + std::to_string(end) + ":" + std::to_string(bind));
    link += "$skiptoken=" + url_encode(token, "$,:");
    out["@odata.nextLink"] = link;
  }
  out["value"] = nlohmann::ordered_json::array();
  for (long k = offset; k < end; ++k)
  {
    if (select.empty())
    {  // the default property set, which leaves proxyAddresses out
      nlohmann::ordered_json u = users[size_t(k)];
      u.erase("proxyAddresses");
      out["value"].push_back(u);
      continue;
    }
    nlohmann::ordered_json u;
    for (const auto& s : select)
      u[s] = users[size_t(k)][s];
    out["value"].push_back(u);
  }
  Sim_Reply r;
  r.body = out.dump();
  r.items = std::max<long>(0, end - offset);
  return r;
}

}  // namespace exo_sim
