#ifndef BACKUP_EXCHANGE_CORE_OFFICE365_OFFICE365_CONSOLE_H
#define BACKUP_EXCHANGE_CORE_OFFICE365_OFFICE365_CONSOLE_H

#include "host/http/json_restful_client.h"
#include "host/office365/office365_auth.h"
#include "host/office365/office365_auth_entry.h"
#include "host/office365/office365_token.h"

#include <string>
#include <vector>

// The Graph endpoint's token scope: the endpoint followed by "/.default"
// (a trailing slash is not removed).
std::string ms_graph_default_scope(const std::string& graph_endpoint);

// Lists a tenant's mailboxes through Microsoft Graph, one page per call, and
// tests registrations. Holds one HTTP session for its life; one thread at a time.
// Paging state is the caller's: pass the next_skip_token of one call as the
// skip_token of the next until a call leaves it empty.
class Office365_Console
{
public:
  enum
  {
    O365_DEFAULT_PAGE_SIZE = 100,
    O365_MAX_PAGE_SIZE = 999,
  };

  // Never throws on a bad endpoint: logs and leaves the client without a session.
  explicit Office365_Console(Office365_Auth_Entry entry);

  // Obtains a token and installs it as the client's authorization header.
  bool check_token();

  // Appends one page of user principal names (ascending) to `mailboxes`.
  // `skip_token` / `search` null or empty: first page / no filter. `total` gets
  // the Graph count when the answer has one; `next_skip_token` the next page's
  // token, untouched when there is none. `top` is sent as given (callers clamp
  // it to O365_MAX_PAGE_SIZE).
  bool list_mailboxes(std::vector<std::string>& mailboxes, const std::string* skip_token, int top, int& total,
                      std::string& next_skip_token, const std::string* search);

  // True when a Graph token can be obtained with `entry`; else `error` holds the
  // service's reason.
  static bool test_auth(const Office365_Auth_Entry& entry, std::string& error);

private:
  bool read_users(const nlohmann::ordered_json& value, std::vector<std::string>& mailboxes, int& total,
                  std::string& next_link, bool& has_next_link);

  JSON_RESTful_Client client_;
  Office365_Auth auth_;
};

#endif
