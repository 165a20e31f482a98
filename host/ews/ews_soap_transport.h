#ifndef HOST_EWS_EWS_SOAP_TRANSPORT_H
#define HOST_EWS_EWS_SOAP_TRANSPORT_H

#include "host/ews/ews_transport.h"
#include "host/http/http_session.h"

#include <pugixml.hpp>

#include <functional>
#include <memory>
#include <string>

// EWS over SOAP 1.1: one POST of a SOAP envelope per call to the service URL,
// with RequestServerVersion, ExchangeImpersonation for the chosen mailbox
// (t:PrincipalName or t:SmtpAddress) and the X-AnchorMailbox header. Answers
// are read by namespace and local name. Pages by numeric offset.
class EWS_Soap_Transport : public EWS_Transport
{
public:
  // The schema version asked for: ExportItems and UploadItems need Exchange 2010
  // SP1 or later.
  static const char* const server_version;
  // Item bytes per ExportItems/UploadItems request: the base64 of 16 MiB stays
  // under the 25 MB that Exchange accepts in one UploadItems request by default.
  static const long long max_request_bytes = 16LL << 20;

  // `transfer_timeout`: seconds for a request without item data; requests that
  // carry or fetch items get more, in proportion to their bytes.
  EWS_Soap_Transport(const HTTP_Session_Ptr& session, const std::string& path, int transfer_timeout = 300);

  // Makes a fresh transport to the same service (EWS_Transport_Factory sets it
  // to its own maker); without one, make_sibling() returns null.
  void set_sibling_maker(const Sibling_Maker& maker) { sibling_maker_ = maker; }

  const char* name() const override { return "ews"; }
  std::unique_ptr<EWS_Transport> make_sibling() const override;
  EWS_Transport_Limits limits() const override;
  void set_mailbox(const EWS_Mailbox& mailbox) override { mailbox_ = mailbox; }
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

  // Seconds a request moving `bytes` of item data may take.
  long timeout_for(long long bytes) const;

private:
  // Builds an envelope whose body holds one element "m:<operation>", returned.
  pugi::xml_node start_envelope(pugi::xml_document& doc, const char* operation) const;
  // The request with its headers, carrying `doc` as its body.
  void prepare(HTTP_Request& http, const pugi::xml_document& doc) const;
  // Posts the envelope and reads the answer's response messages element
  // ("m:<operation>Response/m:ResponseMessages") into `messages`. `bytes` of
  // item data in the request lengthen its time limit. A request that is not
  // `repeatable` (it creates something) is never sent twice by the HTTP layer
  // on its own.
  Host_Status call(const pugi::xml_document& request, const char* operation, pugi::xml_document& answer,
                   pugi::xml_node& messages, long long bytes = 0, bool repeatable = true);
  Host_Status read_http_failure(const HTTP_Response& response, const pugi::xml_document& answer, bool parsed) const;

  HTTP_Session_Ptr session_;
  std::string path_;
  int transfer_timeout_;
  EWS_Mailbox mailbox_;
  EWS_Credentials credentials_;
  EWS_Cancel_Check cancel_check_;
  bool outcome_unknown_ = false;
  Sibling_Maker sibling_maker_;
};

#endif
