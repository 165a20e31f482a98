#ifndef HOST_EWS_EWS_GRAPH_TRANSPORT_H
#define HOST_EWS_EWS_GRAPH_TRANSPORT_H

#include "host/ews/ews_graph_mailbox_cache.h"
#include "host/ews/ews_transport.h"
#include "host/http/http_session.h"

#include <nlohmann/json_fwd.hpp>

#include <functional>
#include <memory>
#include <string>

// The EWS client's operations over Microsoft Graph's mailbox import/export API
// (/v1.0/admin/exchange/mailboxes/{id}/...), one request per call like the SOAP
// transport, so that EWS_Client's paging, batching, retries and token renewal
// serve both (docs/decisions/0017-graph-transport.md):
// - the mailbox id comes from /v1.0/users/{upn}/settings/exchange (an SMTP
//   address is first looked up in the directory), once per name for the
//   transport and its siblings;
// - listings page with $top/$skip, or follow @odata.nextLink verbatim; a deep
//   folder listing walks childFolders one page per call, its place kept in the
//   cursor;
// - exports go 20 ids per exportItems request; an element with an error fails
//   that item alone;
// - uploads go one item per POST to the mailbox's import session URL, made on
//   first need, shared and renewed when it nears its expiry or is refused. That
//   URL carries a token of its own: it is never logged nor put into a status.
class EWS_Graph_Transport : public EWS_Transport
{
public:
  // exportItems takes at most 20 ids.
  static const int max_export_ids = 20;
  // Item bytes per export request, as for SOAP.
  static const long long max_request_bytes = 16LL << 20;

  // `session` reaches the Graph endpoint whose path is `base_path` ("" for
  // https://graph.microsoft.com); `cache` is shared with the siblings.
  EWS_Graph_Transport(const HTTP_Session_Ptr& session, const std::string& base_path,
                      const std::shared_ptr<EWS_Graph_Mailbox_Cache>& cache, int transfer_timeout = 300);

  void set_sibling_maker(const Sibling_Maker& maker) { sibling_maker_ = maker; }

  const char* name() const override { return "graph"; }
  std::unique_ptr<EWS_Transport> make_sibling() const override;
  EWS_Transport_Limits limits() const override;
  void set_mailbox(const EWS_Mailbox& mailbox) override;
  void set_credentials(const EWS_Credentials& credentials) override { credentials_ = credentials; }
  void set_cancel_check(const EWS_Cancel_Check& check) override { cancel_check_ = check; }
  bool is_unknown_mailbox(const Host_Status& status) const override;
  bool is_folder_exists(const Host_Status& status) const override;
  bool outcome_unknown() const override { return outcome_unknown_; }

  Host_Status find_folders(const EWS_Folder_Ref& parent, bool deep, const EWS_Page_Cursor& at, int max,
                           EWS_Folder_Page& page) override;
  Host_Status find_items(const std::string& folder_id, const EWS_Page_Cursor& at, int max,
                         EWS_Item_Page& page) override;
  Host_Status export_items(const std::vector<EWS_Export_Request*>& requests) override;
  Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) override;
  Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                           std::vector<EWS_Upload_Result>& results) override;

private:
  // Sends `http` over `session` and reads a 2xx answer's JSON into `answer`.
  // With `authorized`, the bearer token goes with it. `bytes` of item data
  // lengthen the time limit.
  Host_Status call(HTTP_Session& session, HTTP_Request& http, nlohmann::ordered_json& answer, bool authorized,
                   long long bytes = 0);
  Host_Status get(const std::string& target, nlohmann::ordered_json& answer);
  Host_Status post(const std::string& target, const std::string& body, nlohmann::ordered_json& answer, bool repeatable,
                   long long bytes = 0);
  // "/v1.0/admin/exchange/mailboxes/{id}" of the mailbox acted for, resolving
  // its id on first need.
  Host_Status mailbox_path(std::string& path);
  Host_Status resolve_mailbox(std::string& id);
  // The path of the folders below `parent` (folders, or folders/{x}/childFolders).
  std::string children_path(const std::string& mailbox, const EWS_Folder_Ref& parent) const;
  // One page of a collection at `path`: from `link` when not empty, else $top/$skip.
  Host_Status list_page(const std::string& path, const std::string& link, long skip, int max,
                        nlohmann::ordered_json& answer, std::string& next_link, const char* options = nullptr);
  Host_Status find_folders_deep(const std::string& mailbox, const EWS_Folder_Ref& parent, const EWS_Page_Cursor& at,
                                int max, EWS_Folder_Page& page);
  Host_Status import_session(const std::string& mailbox, EWS_Graph_Mailbox_Cache::Import_Session& session);
  Host_Status import_item(const std::string& mailbox, const std::string& folder_id, const ustring& data,
                          EWS_Upload_Result& result);
  long timeout_for(long long bytes) const;

  HTTP_Session_Ptr session_;
  std::string base_path_;
  std::string session_origin_;  // "https://graph.microsoft.com", where next links may lead
  std::shared_ptr<EWS_Graph_Mailbox_Cache> cache_;
  int transfer_timeout_;
  EWS_Mailbox mailbox_;
  std::string mailbox_id_;  // of mailbox_, once resolved
  EWS_Credentials credentials_;
  EWS_Cancel_Check cancel_check_;
  bool outcome_unknown_ = false;
  Sibling_Maker sibling_maker_;
  // The connection to the import sessions' server, and its origin.
  HTTP_Session_Ptr import_server_;
  std::string import_origin_;
};

#endif
