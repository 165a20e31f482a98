#include "host/http/json_restful_client.h"

#include "host/http/http_status.h"
#include "host/http/retry_policy.h"
#include <nlohmann/json.hpp>

namespace
{
const char* header_name(int id)
{
  switch (id)
  {
  case HTTP_HEADER_ACCEPT:
    return "Accept";
  case HTTP_HEADER_CONTENT_TYPE:
    return "Content-Type";
  case HTTP_HEADER_USER_AGENT:
    return "User-Agent";
  case HTTP_HEADER_ACCEPT_LANGUAGE:
    return "Accept-Language";
  case HTTP_HEADER_CONNECTION:
    return "Connection";
  case HTTP_HEADER_AUTHORIZATION:
    return "Authorization";
  default:
    return nullptr;
  }
}

// At most this much of an answer body goes into an error text.
const size_t error_body_excerpt = 512;
}  // namespace

JSON_RESTful_Client::JSON_RESTful_Client(bool accept_json)
{
  if (accept_json)
    standing_[HTTP_HEADER_ACCEPT] = "application/json";
}

void JSON_RESTful_Client::reset(const HTTP_Session_Ptr& session) { session_ = session; }

void JSON_RESTful_Client::set_header(int id, const char* value)
{
  if (header_name(id) == nullptr)
    return;
  if (value == nullptr)
    standing_.erase(id);
  else
    standing_[id] = value;
}

bool JSON_RESTful_Client::get(HTTP_Request& request, nlohmann::ordered_json* value) { return send(request, value); }

bool JSON_RESTful_Client::post(HTTP_Request& request, const std::string& body, const char* content_type,
                               nlohmann::ordered_json* value)
{
  request.body() = body;
  if (content_type)
    request.headers().put("Content-Type", content_type, true);
  return send(request, value);
}

bool JSON_RESTful_Client::send(HTTP_Request& request, nlohmann::ordered_json* value)
{
  for (const auto& h : standing_)
    if (request.headers().get(header_name(h.first)) == nullptr)
      request.headers().put(header_name(h.first), h.second, false);
  Retry_Policy policy(retry_budget_, Retry_Policy::RETRY_THROTTLED);
  status_ = run_with_retry_T(policy, [&] { return attempt(request, value); });
  return status_.ok();
}

Host_Status JSON_RESTful_Client::attempt(HTTP_Request& request, nlohmann::ordered_json* value)
{
  last_status_ = 0;
  last_error_.clear();
  response_.reset();
  if (!session_)
  {
    last_error_ = "no HTTP session";
    return Host_Status::make(HOST_STATUS_PERMANENT, "connection", last_error_);
  }
  if (!session_->perform(request, response_))
  {
    last_error_ = session_->error();
    return http_transport_status(*session_);
  }
  last_status_ = response_.status();
  const std::string excerpt = response_.body().substr(0, error_body_excerpt);
  Host_Status status = http_answer_status(response_, excerpt);
  if (!status.ok())
  {
    last_error_ = "HTTP status " + std::to_string(last_status_) + ": " + excerpt;
    return status;
  }
  if (value == nullptr)
    return status;
  *value = nlohmann::ordered_json::parse(response_.body(), nullptr, false);
  if (value->is_discarded())
  {
    last_error_ = "the answer is not JSON";
    return Host_Status::make(HOST_STATUS_PERMANENT, "HTTP " + std::to_string(last_status_), last_error_);
  }
  return status;
}
