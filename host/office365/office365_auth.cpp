#include "host/office365/office365_auth.h"

#include "host/office365/office365_token.h"

#include <algorithm>
#include <chrono>

namespace
{
int64_t now_seconds()
{
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

Office365_Auth::Office365_Auth(const Office365_Auth_Entry& entry, const std::string& scope)
  : entry_(entry), scope_(scope)
{
}

Office365_Auth::Office365_Auth(const std::string& login_endpoint, const Office365_Auth_Entry& entry,
                               const std::string& scope)
  : entry_(entry), scope_(scope)
{
  if (!login_endpoint.empty())
    entry_.ms_login_endpoint = login_endpoint;
}

int64_t Office365_Auth::renew_margin(long lifetime)
{
  if (lifetime < 600)
    return std::max<int64_t>(0, lifetime / 2);
  return 300;
}

bool Office365_Auth::get_token(std::string& token)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (!token_.empty() && now_seconds() < expired_at_)
  {
    token = token_;
    return true;
  }
  std::string fresh;
  long lifetime = 0;
  std::string error;
  ++requests_;
  if (!get_office365_token(entry_, scope_, fresh, lifetime, error))
  {
    token_.clear();
    last_error_ = error;
    return false;
  }
  token_ = fresh;
  expired_at_ = now_seconds() + lifetime - renew_margin(lifetime);
  last_error_.clear();
  token = token_;
  return true;
}

void Office365_Auth::invalidate()
{
  std::lock_guard<std::mutex> guard(lock_);
  token_.clear();
  expired_at_ = 0;
}

std::string Office365_Auth::last_error() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return last_error_;
}

unsigned Office365_Auth::requests() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}
