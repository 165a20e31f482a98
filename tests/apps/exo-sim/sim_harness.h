#pragma once
// Test harness for exo-sim: runs a Sim_Server in-process on a free loopback port and talks to it
// with plain libcurl, the way a client would.
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <pugixml.hpp>

#include "apps/exo-sim/sim_options.h"
#include "apps/exo-sim/sim_server.h"

namespace exo_sim_test
{
// The namespace of EWS error details (ResponseCode, Message) in a SOAP fault.
constexpr char ews_errors_ns[] = "http://schemas.microsoft.com/exchange/services/2006/errors";

struct Http_Result
{
  long status = 0;
  std::string body;
  std::string headers;  // raw response header block
  int curl_code = 0;
  std::string header(const std::string& name) const;  // first value, case-insensitive name
};

Http_Result http_request(const std::string& method, const std::string& url, const std::string& body,
                         const std::vector<std::string>& headers);

extern const char* const k_tenant_id;
extern const char* const k_client_id;
extern const char* const k_client_secret;
extern const char* const k_ews_scope;
extern const char* const k_graph_scope;
extern const char* const k_admin;

// Options of a small, fast data set (the "tiny" profile).
exo_sim::Sim_Options tiny_options();

class Sim_Fixture
{
public:
  explicit Sim_Fixture(const exo_sim::Sim_Options& options = tiny_options());
  ~Sim_Fixture();

  std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
  exo_sim::Sim_Server& server() { return *server_; }

  Http_Result token_request(const std::string& form, const std::string& tenant = k_tenant_id);
  std::string token(const std::string& scope);

  // POSTs a SOAP envelope built from `header_extra` and `body` to EWS as `mailbox` (impersonated).
  Http_Result ews(const std::string& body, const std::string& mailbox = k_admin, const std::string& token = "",
                  const std::string& version = "Exchange2016", bool anchor = true);
  Http_Result ews_raw(const std::string& envelope, const std::vector<std::string>& headers);
  // POSTs `body` impersonating the user named by `address` in ConnectingSID form `form`
  // (PrincipalName, PrimarySmtpAddress, SmtpAddress or SID); X-AnchorMailbox is `anchor`.
  Http_Result ews_as(const std::string& form, const std::string& address, const std::string& body,
                     const std::string& anchor);

  Http_Result graph_users(const std::string& query, bool eventual = true, const std::string& token = "");
  nlohmann::ordered_json status();

private:
  std::unique_ptr<exo_sim::Sim_Server> server_;
  std::thread thread_;
  int port_ = 0;
  std::string ews_token_;
  std::string graph_token_;
};

std::string soap_envelope(const std::string& header, const std::string& body);
std::string impersonation_header(const std::string& mailbox, const std::string& version = "Exchange2016",
                                 const std::string& form = "PrimarySmtpAddress");

// Request bodies.
std::string find_folder_body(const std::string& parent_xml, const std::string& traversal = "Shallow",
                             const std::string& shape = "Default", const std::string& view = "");
std::string find_item_body(const std::string& parent_xml, int offset, int max, const std::string& shape = "IdOnly",
                           const std::string& traversal = "Shallow");
std::string export_items_body(const std::vector<std::string>& ids);
std::string upload_item_xml(const std::string& parent_id, const std::string& base64_data,
                            const std::string& action = "CreateNew");
std::string create_folder_body(const std::string& parent_xml, const std::string& name,
                               const std::string& element = "Folder");
std::string distinguished(const std::string& id);
std::string folder_id(const std::string& id);

// Parsed SOAP response; elements are found by namespace URI + local name.
struct Soap_Doc
{
  pugi::xml_document doc;
  bool ok = false;
  // Every element with that local name in the messages (m) or types (t) namespace, document order.
  std::vector<pugi::xml_node> all(const char* ns, const char* local) const;
  pugi::xml_node first(const char* ns, const char* local) const;
};
void parse_soap(const std::string& text, Soap_Doc& out);

extern const char* const M;  // messages namespace
extern const char* const T;  // types namespace

// Finds the id of a folder by display name with a deep FindFolder from msgfolderroot.
std::string folder_id_by_name(Sim_Fixture& sim, const std::string& name, const std::string& mailbox = k_admin);
// All item ids of a folder, paging with `page`.
std::vector<std::string> all_item_ids(Sim_Fixture& sim, const std::string& folder, int page,
                                      const std::string& mailbox = k_admin);

}  // namespace exo_sim_test
