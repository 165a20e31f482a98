#include "host/storage/s3_answer.h"

#include <pugixml.hpp>
#include <sstream>

#include "host/http/http_status.h"

namespace
{
// The <Error> element of an error document, or an empty node.
pugi::xml_node error_element(const pugi::xml_document& doc) { return doc.child("Error"); }
}  // namespace

Host_Status S3_Answer::status(const HTTP_Response& response)
{
  pugi::xml_document doc;
  const bool parsed = !response.body().empty() && doc.load_string(response.body().c_str());
  const pugi::xml_node error = parsed ? error_element(doc) : pugi::xml_node();
  const bool ok = response.status() >= 200 && response.status() < 300;
  if (ok && !error)
    return Host_Status::success();
  const std::string code = error.child_value("Code");
  const std::string message = error.child_value("Message");
  std::string detail = code;
  if (!message.empty())
    detail += (detail.empty() ? "" : ": ") + message;
  Host_Status status;
  if (ok)
    status = Host_Status::make(HOST_STATUS_PERMANENT, "S3 error in a 200 answer", detail);
  else
    status = http_answer_status(response, detail);
  if (code == "SlowDown")
    status.kind = HOST_STATUS_THROTTLED;
  else if (code == "InternalError" || code == "ServiceUnavailable")
    status.kind = status.kind == HOST_STATUS_THROTTLED ? status.kind : HOST_STATUS_TRANSIENT;
  return status;
}

std::string S3_Answer::error_code(const HTTP_Response& response)
{
  pugi::xml_document doc;
  if (response.body().empty() || !doc.load_string(response.body().c_str()))
    return std::string();
  return error_element(doc).child_value("Code");
}

bool S3_Answer::upload_id(const std::string& body, std::string& id)
{
  pugi::xml_document doc;
  if (!doc.load_string(body.c_str()))
    return false;
  id = doc.child("InitiateMultipartUploadResult").child_value("UploadId");
  return !id.empty();
}

bool S3_Answer::listing(const std::string& body, Listing& out)
{
  pugi::xml_document doc;
  pugi::xml_node result;
  if (!doc.load_string(body.c_str()) || !(result = doc.child("ListBucketResult")))
    return false;
  out = Listing();
  for (pugi::xml_node contents : result.children("Contents"))
    out.keys.push_back(contents.child_value("Key"));
  out.truncated = std::string(result.child_value("IsTruncated")) == "true";
  out.next_token = result.child_value("NextContinuationToken");
  return !out.truncated || !out.next_token.empty();
}

std::string S3_Answer::complete_body(const std::vector<std::string>& etags)
{
  // Built with pugixml, which escapes the ETags' quotes.
  pugi::xml_document doc;
  pugi::xml_node root = doc.append_child("CompleteMultipartUpload");
  root.append_attribute("xmlns") = "http://s3.amazonaws.com/doc/2006-03-01/";
  for (size_t i = 0; i < etags.size(); ++i)
  {
    pugi::xml_node part = root.append_child("Part");
    part.append_child("PartNumber").text() = static_cast<unsigned long long>(i + 1);
    part.append_child("ETag").text() = etags[i].c_str();
  }
  std::ostringstream body;
  doc.save(body, "", pugi::format_raw | pugi::format_no_declaration);
  return body.str();
}
