#include "host/ews/ews_export_stream.h"

#include "host/ews/ews_xml.h"

#include <expat.h>

#include <algorithm>
#include <cstring>

namespace
{
// Texts of codes and messages are short; a longer one is cut, not grown.
const size_t max_text = 4096;

void split(const char* name, std::string& ns, std::string& local)
{
  const char* bar = std::strrchr(name, '|');
  if (bar)
  {
    ns.assign(name, static_cast<size_t>(bar - name));
    local = bar + 1;
  }
  else
  {
    ns.clear();
    local = name;
  }
}

const char* attribute(const char** attributes, const char* name)
{
  for (const char** a = attributes; a && a[0]; a += 2)
    if (std::strcmp(a[0], name) == 0)
      return a[1];
  return "";
}
}  // namespace

EWS_Export_Stream::EWS_Export_Stream(const std::vector<EWS_Export_Request*>& requests)
  : requests_(requests), parser_(XML_ParserCreateNS(nullptr, '|'))
{
  XML_SetUserData(parser_, this);
  XML_SetElementHandler(parser_, &EWS_Export_Stream::on_start, &EWS_Export_Stream::on_end);
  XML_SetCharacterDataHandler(parser_, &EWS_Export_Stream::on_text);
}

EWS_Export_Stream::~EWS_Export_Stream() { XML_ParserFree(parser_); }

bool EWS_Export_Stream::feed(const char* data, size_t len)
{
  if (ok_ && XML_Parse(parser_, data, static_cast<int>(len), XML_FALSE) != XML_STATUS_OK)
    ok_ = false;
  return ok_;
}

bool EWS_Export_Stream::finish()
{
  if (ok_ && XML_Parse(parser_, nullptr, 0, XML_TRUE) != XML_STATUS_OK)
    ok_ = false;
  return ok_;
}

void EWS_Export_Stream::on_start(void* self, const char* name, const char** attributes)
{
  std::string ns, local;
  split(name, ns, local);
  static_cast<EWS_Export_Stream*>(self)->start(ns, local, attributes);
}

void EWS_Export_Stream::on_end(void* self, const char* name)
{
  std::string ns, local;
  split(name, ns, local);
  static_cast<EWS_Export_Stream*>(self)->end(ns, local);
}

void EWS_Export_Stream::on_text(void* self, const char* text, int len)
{
  EWS_Export_Stream* s = static_cast<EWS_Export_Stream*>(self);
  if (s->in_data_)
  {
    // The item's content: decoded as it comes, never kept as text.
    s->saw_data_ = true;
    s->decoder_->feed(text, static_cast<size_t>(len));
  }
  else if (!s->field_.empty() && s->text_.size() < max_text)
    s->text_.append(text, std::min(static_cast<size_t>(len), max_text - s->text_.size()));
}

void EWS_Export_Stream::start(const std::string& ns, const std::string& local, const char** attributes)
{
  ++depth_;
  text_.clear();
  field_.clear();
  if (ns == ews_xml::soap_ns && local == "Fault")
  {
    in_fault_ = true;
    faulted_ = true;
    fault_ = EWS_Soap_Message();
    fault_.response_class = "Error";
    return;
  }
  if (message_depth_ < 0 && !in_fault_)
  {
    if (ns == ews_xml::messages_ns && local == "ExportItemsResponseMessage")
    {
      message_depth_ = depth_;
      message_ = EWS_Soap_Message();
      message_.response_class = attribute(attributes, "ResponseClass");
      const size_t expected = answered_ < requests_.size() && requests_[answered_]->size > 0
                                ? static_cast<size_t>(requests_[answered_]->size)
                                : 0;
      decoder_.reset(new EWS_b64_Decoder(expected));
      saw_data_ = false;
    }
    return;
  }
  if (local == "MessageXml")
    in_message_xml_ = true;
  else if (in_message_xml_ && local == "Value")
  {
    field_ = local;
    value_name_ = attribute(attributes, "Name");
  }
  else if (local == "Data" && message_depth_ >= 0 && depth_ == message_depth_ + 1)
    in_data_ = true;
  else if (local == "ResponseCode" || local == "MessageText" || local == "Message" || local == "faultstring")
    field_ = local;
}

void EWS_Export_Stream::end(const std::string& ns, const std::string& local)
{
  EWS_Soap_Message& m = in_fault_ ? fault_ : message_;
  if (field_ == "Value")
    m.add_value(value_name_, text_);
  else if (field_ == "ResponseCode")
    m.code = trim_space(text_);
  else if (field_ == "MessageText" || field_ == "Message")
    m.text = trim_space(text_);
  else if (field_ == "faultstring" && m.text.empty())
    m.text = trim_space(text_);
  field_.clear();
  text_.clear();
  if (local == "MessageXml")
    in_message_xml_ = false;
  if (local == "Data")
    in_data_ = false;
  if (in_fault_ && ns == ews_xml::soap_ns && local == "Fault")
    in_fault_ = false;
  if (depth_ == message_depth_)
    end_message();
  --depth_;
}

void EWS_Export_Stream::end_message()
{
  message_depth_ = -1;
  if (answered_ >= requests_.size())
    return;  // more messages than items: the caller sees the count differ
  EWS_Export_Request& r = *requests_[answered_++];
  r.data = EWS_b64_Data();
  r.status = message_.status();
  if (!r.status.ok())
    return;
  if (saw_data_ && decoder_->finish())
    r.data = decoder_->take();
  if (r.data.size <= 0)
  {
    // Damaged data fails this item alone; the others of the batch stand.
    r.data = EWS_b64_Data();
    r.status = Host_Status::make(HOST_STATUS_PERMANENT, "invalid export data", "the item's data is not base64");
  }
  decoder_.reset();
}
