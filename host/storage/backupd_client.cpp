#include "host/storage/backupd_client.h"

#include <nlohmann/json.hpp>

#include "host/http/http_session_factory.h"
#include "host/http/http_status.h"
#include "host/http/retry_policy.h"
#include "host/http/uri_parser.h"
#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"

Backupd_Client::Backupd_Client(int timeout_seconds, int max_seconds_retry)
  : timeout_seconds_(timeout_seconds < 0 ? 60 : timeout_seconds), max_seconds_retry_(max_seconds_retry)
{
}

bool Backupd_Client::get(const std::string& resource, std::string& answer)
{
  return request(HTTP_METHOD_GET, resource, nullptr, answer);
}

bool Backupd_Client::post(const std::string& resource, const std::string& body, std::string& answer)
{
  return request(HTTP_METHOD_POST, resource, &body, answer);
}

bool Backupd_Client::request(int method, const std::string& resource, const std::string* body, std::string& answer)
{
  answer.clear();
  http_status_ = 0;
  Host_Manager& host = Host_Manager::instance();
  const std::string base = host.backupd_url();
  URI server;
  HTTP_Session_Ptr session;
  HTTP_Session_Factory::Session_Options options;
  options.connect_timeout = 10;
  options.transfer_timeout = timeout_seconds_;
  options.allow_plain_http = host.allow_plain_http();
  if (base.empty())
    error_ = "no backup server is configured";
  else if (!URI_Parser::parse(base.c_str(), server))
    error_ = "invalid backup server URL '" + base + "'";
  else
    session = HTTP_Session_Factory::create(server, options, error_);
  if (!session)
  {
    status_ = Host_Status::make(HOST_STATUS_PERMANENT, "", error_);
    return false;
  }

  std::string path = server.path();
  while (!path.empty() && path.back() == '/')
    path.pop_back();
  const size_t question = resource.find('?');
  HTTP_Request request(method, (path + resource.substr(0, question)).c_str());
  if (question != std::string::npos)
    request.query_string_buffer() = resource.substr(question + 1);
  const std::string key = host.effective_access_key();
  if (const char* name = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, key))
    request.headers().put(name, key);
  const std::string host_id = host.host_id();
  if (const char* name = http_head_string(HTTP_HEAD_HOST_ID, 0, host_id))
    request.headers().put(name, host_id);
  request.headers().put("Accept", "application/json");
  if (body != nullptr)
  {
    request.headers().put("Content-Type", "application/json");
    request.body() = *body;
  }

  HTTP_Response response;
  Retry_Policy retry(max_seconds_retry_);
  status_ = run_with_retry_T(retry,
                             [&]
                             {
                               if (!session->perform(request, response))
                                 return http_transport_status(*session);
                               return http_answer_status(response, backupd_error_of(response.body()));
                             });
  http_status_ = response.status();
  answer = response.body();
  error_ = status_.text();
  return status_.ok();
}

std::string backupd_error_of(const std::string& body)
{
  nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
  if (parsed.is_object() && parsed.contains("error") && parsed["error"].is_string())
    return parsed["error"].get<std::string>();
  return std::string();
}
