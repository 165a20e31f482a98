#include "host/storage/backupd_client.h"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"
#include "host/storage/retry_policy.h"

Backupd_Client::Backupd_Client(int timeout_seconds, int max_seconds_retry)
    : timeout_seconds_(timeout_seconds < 0 ? 60 : timeout_seconds), max_seconds_retry_(max_seconds_retry)
{
}

bool Backupd_Client::get(const std::string& resource, std::string& answer)
{
  return request("GET", resource, nullptr, answer);
}

bool Backupd_Client::post(const std::string& resource, const std::string& body, std::string& answer)
{
  return request("POST", resource, &body, answer);
}

static size_t append_body(char* buf, size_t size, size_t n, void* p)
{
  static_cast<std::string*>(p)->append(buf, size * n);
  return size * n;
}

bool Backupd_Client::request(const char* method, const std::string& resource, const std::string* body,
                             std::string& answer)
{
  Host_Manager& host = Host_Manager::instance();
  std::string base = host.backupd_url();
  if (base.empty())
  {
    error_ = "no backup server is configured";
    return false;
  }
  bool loopback = base.compare(0, 17, "http://127.0.0.1:") == 0 || base.compare(0, 17, "http://localhost:") == 0;
  if (base.compare(0, 7, "http://") == 0 && !loopback && !host.allow_plain_http())
  {
    error_ = "plain http is allowed for loopback addresses only: " + base;
    return false;
  }
  Retry_Policy retry(max_seconds_retry_);
  for (;;)
  {
    bool transient = false;
    if (attempt(method, base + resource, body, answer, transient))
      return true;
    if (!transient || !retry.wait_before_retry())
      return false;
  }
}

bool Backupd_Client::attempt(const char* method, const std::string& url, const std::string* body,
                             std::string& answer, bool& transient)
{
  answer.clear();
  status_ = 0;
  CURL* curl = curl_easy_init();
  if (curl == nullptr)
  {
    error_ = "cannot create an HTTP handle";
    return false;
  }
  std::string key = Host_Manager::instance().effective_access_key();
  curl_slist* headers = nullptr;
  if (const char* name = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, key))
    headers = curl_slist_append(headers, (std::string(name) + ": " + key).c_str());
  std::string host_id = Host_Manager::instance().host_id();
  if (const char* name = http_head_string(HTTP_HEAD_HOST_ID, 0, host_id))
    headers = curl_slist_append(headers, (std::string(name) + ": " + host_id).c_str());
  headers = curl_slist_append(headers, "Accept: application/json");
  if (body != nullptr)
  {
    headers = curl_slist_append(headers, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
  }
  char error_buffer[CURL_ERROR_SIZE] = "";
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeout_seconds_);
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_body);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
  CURLcode code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status_);
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (code != CURLE_OK)
  {
    error_ = error_buffer[0] ? error_buffer : curl_easy_strerror(code);
    transient = code == CURLE_COULDNT_CONNECT || code == CURLE_OPERATION_TIMEDOUT || code == CURLE_SEND_ERROR ||
                code == CURLE_RECV_ERROR || code == CURLE_GOT_NOTHING || code == CURLE_PARTIAL_FILE;
    return false;
  }
  if (status_ >= 200 && status_ < 300)
    return true;
  error_ = "HTTP " + std::to_string(status_);
  nlohmann::json parsed = nlohmann::json::parse(answer, nullptr, false);
  if (parsed.is_object() && parsed.contains("error") && parsed["error"].is_string())
    error_ += ": " + parsed["error"].get<std::string>();
  transient = status_ == 408 || status_ == 429 || status_ >= 500;
  return false;
}
