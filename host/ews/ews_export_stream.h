#ifndef HOST_EWS_EWS_EXPORT_STREAM_H
#define HOST_EWS_EWS_EXPORT_STREAM_H

#include "host/ews/ews_b64_decoder.h"
#include "host/ews/ews_export_request.h"
#include "host/ews/ews_soap_status.h"

#include <memory>
#include <string>
#include <vector>

struct XML_ParserStruct;

// Reads an ExportItems answer as it arrives, piece by piece, without holding
// it: each response message's data is decoded from base64 straight into that
// item's buffer, so an answer costs about the bytes of its items. Each message
// sets the status (and data) of the request at its position as soon as it is
// complete; damaged data fails that item alone. A SOAP fault is kept for the
// caller. Elements are matched by namespace and local name. One thread.
class EWS_Export_Stream
{
public:
  explicit EWS_Export_Stream(const std::vector<EWS_Export_Request*>& requests);
  ~EWS_Export_Stream();
  EWS_Export_Stream(const EWS_Export_Stream&) = delete;
  EWS_Export_Stream& operator=(const EWS_Export_Stream&) = delete;

  // False once the text is not well-formed XML (a cut or damaged answer).
  bool feed(const char* data, size_t len);
  // Ends the text; false when the document is not complete.
  bool finish();

  // Response messages read in full so far.
  size_t answered() const { return answered_; }
  // Whether the answer was a SOAP fault, and what it said.
  bool faulted() const { return faulted_; }
  const EWS_Soap_Message& fault() const { return fault_; }

private:
  static void on_start(void* self, const char* name, const char** attributes);
  static void on_end(void* self, const char* name);
  static void on_text(void* self, const char* text, int len);
  void start(const std::string& ns, const std::string& local, const char** attributes);
  void end(const std::string& ns, const std::string& local);
  void end_message();

  std::vector<EWS_Export_Request*> requests_;
  XML_ParserStruct* parser_;
  bool ok_ = true;
  size_t answered_ = 0;

  // Where the parser is.
  int depth_ = 0;
  int message_depth_ = -1;  // depth of the ExportItemsResponseMessage under way
  bool in_fault_ = false;
  bool in_message_xml_ = false;
  bool in_data_ = false;
  std::string field_;       // local name of the text element being read
  std::string value_name_;  // Name attribute of a t:Value being read
  std::string text_;        // its text (bounded)

  EWS_Soap_Message message_;
  std::unique_ptr<EWS_b64_Decoder> decoder_;
  bool saw_data_ = false;
  bool faulted_ = false;
  EWS_Soap_Message fault_;
};

#endif
