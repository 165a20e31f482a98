#ifndef HOST_EWS_EWS_SOAP_TRANSPORT_H
#define HOST_EWS_EWS_SOAP_TRANSPORT_H

#include "host/ews/ews_transport.h"
#include "host/http/http_session.h"

#include <pugixml.hpp>

#include <string>

// EWS over SOAP 1.1: one POST of a SOAP envelope per call to the service URL,
// with RequestServerVersion, ExchangeImpersonation for the chosen mailbox and
// the X-AnchorMailbox header. Answers are read by namespace and local name.
class EWS_Soap_Transport : public EWS_Transport
{
public:
  // The schema version asked for: ExportItems and UploadItems need Exchange 2010
  // SP1 or later.
  static const char* const server_version;

  EWS_Soap_Transport(const HTTP_Session_Ptr& session, const std::string& path);

  void set_mailbox(const std::string& mailbox) override { mailbox_ = mailbox; }
  void set_credentials(const EWS_Credentials& credentials) override { credentials_ = credentials; }

  Host_Status find_folders(const EWS_Folder_Ref& parent, bool deep, int offset, int max,
                          EWS_Folder_Page& page) override;
  Host_Status find_items(const std::string& folder_id, int offset, int max, EWS_Item_Page& page) override;
  Host_Status export_items(EWS_Export_Requests& requests) override;
  Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) override;
  Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                          std::vector<std::string>& ids, std::vector<std::string>& errors) override;

private:
  // Builds an envelope whose body holds one element "m:<operation>", returned.
  pugi::xml_node start_envelope(pugi::xml_document& doc, const char* operation) const;
  // Posts the envelope and reads the answer's response messages element
  // ("m:<operation>Response/m:ResponseMessages") into `messages`.
  Host_Status call(const pugi::xml_document& request, const char* operation, pugi::xml_document& answer,
                  pugi::xml_node& messages);
  Host_Status read_http_failure(const HTTP_Response& response, const pugi::xml_document& answer,
                               bool parsed) const;

  HTTP_Session_Ptr session_;
  std::string path_;
  std::string mailbox_;
  EWS_Credentials credentials_;
};

#endif
