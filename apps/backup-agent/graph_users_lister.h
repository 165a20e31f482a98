#ifndef APPS_BACKUP_AGENT_GRAPH_USERS_LISTER_H
#define APPS_BACKUP_AGENT_GRAPH_USERS_LISTER_H

#include "host/http/json_restful_client.h"
#include "host/office365/office365_auth.h"
#include "host/office365/office365_auth_entry.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

// Lists the mailboxes of a registered tenant through Microsoft Graph
// (`GET /v1.0/users`, every page through `@odata.nextLink`), for
// `backup --all-mailboxes`. A mailbox is named by its primary SMTP address
// (Graph `mail`), the form the module impersonates; users without one have no
// mailbox and are left out. One thread at a time; holds one HTTP session and
// the Graph token of the registration for its life. The token never enters an
// error.
class Graph_Users_Lister
{
public:
  explicit Graph_Users_Lister(const Office365_Auth_Entry& entry);

  // Appends the mailboxes of the tenant, in the order Graph lists them
  // (by user principal name). False with `error` when a page cannot be had
  // or is not a users page; `mailboxes` then holds the pages read so far.
  bool list(std::vector<std::string>& mailboxes, std::string& error);

  // Reads one users page: the `mail` of each user into `mailboxes`, the path
  // and query of the next page into `next` (empty on the last page). False with
  // `error` for an answer that is not a users page.
  static bool read_page(const nlohmann::ordered_json& page, std::vector<std::string>& mailboxes, std::string& next,
                        std::string& error);

  enum
  {
    PAGE_SIZE = 999,    // the most Graph hands out per page
    MAX_PAGES = 100000  // a service that never ends its listing is not followed forever
  };

private:
  bool get(const std::string& path_and_query, nlohmann::ordered_json& page, std::string& error);

  Office365_Auth auth_;
  JSON_RESTful_Client client_;
  std::string session_error_;
};

#endif
