#include "apps/backup-agent/graph_users_lister.h"

#include "host/http/http_request.h"
#include "host/http/http_session_factory.h"
#include "host/http/uri_parser.h"

#include <algorithm>

Graph_Users_Lister::Graph_Users_Lister(const Office365_Auth_Entry& entry)
  : auth_(entry, entry.ms_graph_endpoint + "/.default"), client_(true)
{
  URI uri;
  if (!URI_Parser::parse(entry.ms_graph_endpoint.c_str(), uri))
  {
    session_error_ = "the tenant's Graph endpoint '" + entry.ms_graph_endpoint + "' is not a URL";
    return;
  }
  client_.reset(HTTP_Session_Factory::create(uri, HTTP_Session_Factory::Session_Options(), session_error_));
}

bool Graph_Users_Lister::list(std::vector<std::string>& mailboxes, std::string& error)
{
  if (!session_error_.empty())
  {
    error = session_error_;
    return false;
  }
  URI endpoint;
  URI_Parser::parse(auth_.get().ms_graph_endpoint.c_str(), endpoint);
  std::string base = endpoint.path();
  while (!base.empty() && base.back() == '/')
    base.pop_back();
  // Ordered by principal name, so that a listing taken twice names the
  // mailboxes in the same order (and a job's entries stay stable).
  std::string next = base +
                     "/v1.0/"
                     "users?$select=userPrincipalName,mail&$orderby=userPrincipalName&$top=" +
                     std::to_string(static_cast<int>(PAGE_SIZE));
  for (int pages = 0; !next.empty(); ++pages)
  {
    if (pages == MAX_PAGES)
    {
      error = "the Graph users listing did not end after " + std::to_string(pages) + " pages";
      return false;
    }
    nlohmann::ordered_json page;
    if (!get(next, page, error))
      return false;
    next.clear();
    if (!read_page(page, mailboxes, next, error))
      return false;
  }
  return true;
}

bool Graph_Users_Lister::get(const std::string& path_and_query, nlohmann::ordered_json& page, std::string& error)
{
  std::string token;
  if (!auth_.get_token(token))
  {
    error = "no Graph token for the tenant: " + auth_.last_error();
    return false;
  }
  const std::string header = "Bearer " + token;
  std::fill(token.begin(), token.end(), '\0');
  client_.set_header(HTTP_HEADER_AUTHORIZATION, header.c_str());
  const size_t mark = path_and_query.find('?');
  HTTP_Request request(HTTP_METHOD_GET, path_and_query.substr(0, mark).c_str(), true);
  if (mark != std::string::npos)
    request.query_string_buffer() = path_and_query.substr(mark + 1);
  const bool ok = client_.get(request, &page);
  // The header holds the token: it goes with the request and no further.
  client_.set_header(HTTP_HEADER_AUTHORIZATION, nullptr);
  if (!ok && client_.last_status() == 401)
    auth_.invalidate();
  if (!ok)
    error = "the Graph users listing failed: " + client_.last_error();
  return ok;
}

bool Graph_Users_Lister::read_page(const nlohmann::ordered_json& page, std::vector<std::string>& mailboxes,
                                   std::string& next, std::string& error)
{
  const auto users = page.find("value");
  if (!page.is_object() || users == page.end() || !users->is_array())
  {
    error = "a Graph users page without a \"value\" array";
    return false;
  }
  for (const auto& user : *users)
  {
    if (!user.is_object())
    {
      error = "a Graph user that is not an object";
      return false;
    }
    const auto mail = user.find("mail");
    if (mail != user.end() && mail->is_string() && !mail->get<std::string>().empty())
      mailboxes.push_back(mail->get<std::string>());
  }
  const auto link = page.find("@odata.nextLink");
  if (link == page.end() || link->is_null())
    return true;
  URI uri;
  if (!link->is_string() || !URI_Parser::parse(link->get<std::string>().c_str(), uri))
  {
    error = "a Graph users page whose next link is not a URL";
    return false;
  }
  next = uri.path() + (uri.query().empty() ? std::string() : "?" + uri.query());
  return true;
}
