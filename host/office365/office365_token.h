#ifndef HOST_OFFICE365_OFFICE365_TOKEN_H
#define HOST_OFFICE365_OFFICE365_TOKEN_H

#include "host/office365/office365_auth_entry.h"

#include <string>

// One OAuth2 client-credentials token request (no caching) to
// "{ms_login_endpoint}/{tenant_id}/oauth2/v2.0/token" for `scope`
// (e.g. "https://graph.microsoft.com/.default").
// On success `token` holds the access token and `expires` its lifetime in seconds.
// On failure `error` holds the reason: the service's "error_description" when it
// gave one, else the transport's or the status. Neither the secret nor a token is
// ever put into `error` or a log line. An answer asking to wait (429, 503) is sent
// again after its Retry-After wait within the JSON client's retry budget (60 s);
// a failure is logged here.
bool get_office365_token(const Office365_Auth_Entry& entry, const std::string& scope, std::string& token, long& expires,
                         std::string& error);

#endif
