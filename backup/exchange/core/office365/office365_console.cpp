#include "backup/exchange/core/office365/office365_console.h"

#include "backup/exchange/core/office365/query_string_builder.h"
#include "backup/exchange/core/office365/snprintf_t.h"
#include "host/http/http_query_string_iterator.h"
#include "host/http/http_session_factory.h"
#include "host/http/uri_parser.h"
#include "host/base/log.h"
#include <nlohmann/json.hpp>

std::string ms_graph_default_scope(const std::string& graph_endpoint) { return graph_endpoint + "/.default"; }

Office365_Console::Office365_Console(Office365_Auth_Entry entry)
  : client_(true), auth_(entry, ms_graph_default_scope(entry.ms_graph_endpoint))
{
  URI uri;
  if (!URI_Parser::parse(entry.ms_graph_endpoint.c_str(), uri))
  {
    LOG_MSG(LM_ERROR, "Invalid Microsoft graph endpoint '%s'\n", entry.ms_graph_endpoint.c_str());
    return;
  }
  client_.reset(HTTP_Session_Factory::create(uri.host(false), uri.port(), uri.is_ssl(), nullptr, 3, nullptr, false, 120,
                                             120, 0, 0));
}

bool Office365_Console::check_token()
{
  std::string token;
  if (!auth_.get_token(token))
    return false;
  snprintf_t<256> header("Bearer %s", token.c_str());
  client_.set_header(HTTP_HEADER_AUTHORIZATION, header.c_str());
  return true;
}

bool Office365_Console::list_mailboxes(std::vector<std::string>& mailboxes, const std::string* skip_token, int top,
                                       int& total, std::string& next_skip_token, const std::string* search)
{
  if (!check_token())
    return false;

  HTTP_Request request(HTTP_METHOD_GET, "/v1.0/users", true);
  request.headers().put("ConsistencyLevel", "eventual", true);
  Query_String_Builder query(request.query_string_buffer());
  query.add("$select", "userPrincipalName", true, true);
  query.add("$orderBy", "userPrincipalName", true, true);
  query.add("$count", "true", true, true);
  query.add("$top", static_cast<long>(top), true);
  if (search && !search->empty())
  {
    snprintf_t<64> term("\"userPrincipalName:%s\"", search->c_str());
    query.add("$search", term.c_str(), true, true);
  }
  if (skip_token && !skip_token->empty())
    query.add("$skiptoken", skip_token->c_str(), true, true);

  nlohmann::ordered_json value;
  if (!client_.get(request, &value))
  {
    LOG_MSG(LM_ERROR, "Failed to list Office365 users.\n");
    return false;
  }

  std::string next_link;
  bool has_next_link = false;
  if (!read_users(value, mailboxes, total, next_link, has_next_link))
    return false;
  if (!has_next_link)
    return true;

  URI link;
  if (!URI_Parser::parse(next_link.c_str(), link))
  {
    LOG_MSG(LM_WARNING, "Failed to parse Office365 next link '%s'.\n", next_link.c_str());
    return true;
  }
  const HTTP_Query_String_Iterator end(nullptr);
  for (HTTP_Query_String_Iterator it(link.query().c_str()); it != end; ++it)
    if (it->first == "$skiptoken")
    {
      next_skip_token = it->second;
      break;
    }
  return true;
}

bool Office365_Console::read_users(const nlohmann::ordered_json& value, std::vector<std::string>& mailboxes, int& total,
                                   std::string& next_link, bool& has_next_link)
{
  try
  {
    const nlohmann::ordered_json& users = value.at("value");
    if (!users.is_array())
      throw nlohmann::ordered_json::type_error::create(
        302, "\"value\" must be an array, but is " + std::string(users.type_name()), &users);
    const auto link = value.find("@odata.nextLink");
    if (link != value.end())
    {
      next_link = link->get<std::string>();
      has_next_link = true;
    }
    const auto count = value.find("@odata.count");
    if (count != value.end())
    {
      if (!count->is_number_integer())
        throw nlohmann::ordered_json::type_error::create(
          302, "\"@odata.count\" must be an integer, but is " + std::string(count->type_name()), &*count);
      total = count->get<int>();
    }
    mailboxes.reserve(mailboxes.size() + users.size());
    for (const auto& user : users)
    {
      if (!user.is_object())
        throw nlohmann::ordered_json::type_error::create(
          302, "a user must be an object, but is " + std::string(user.type_name()), &user);
      mailboxes.push_back(user.at("userPrincipalName").get<std::string>());
    }
  }
  catch (const nlohmann::ordered_json::exception& e)
  {
    LOG_MSG(LM_ERROR, "Unknown Microsoft graph response of request '/users': %s.", e.what());
    return false;
  }
  return true;
}

bool Office365_Console::test_auth(const Office365_Auth_Entry& entry, std::string& error)
{
  const std::string scope = ms_graph_default_scope(entry.ms_graph_endpoint);
  std::string token;
  long expires = 0;
  const bool ok = get_office365_token(entry, scope, token, expires, error);
  std::fill(token.begin(), token.end(), '\0');
  return ok;
}
