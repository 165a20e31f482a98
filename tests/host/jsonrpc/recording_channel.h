#ifndef TESTS_HOST_JSONRPC_RECORDING_CHANNEL_H
#define TESTS_HOST_JSONRPC_RECORDING_CHANNEL_H

#include "host/jsonrpc/json_rpc_channel.h"

#include <mutex>
#include <vector>

// A channel that keeps every reply sent through it, as the JSON object the
// requester would have received.
class Recording_Channel : public JSON_RPC_Channel
{
public:
  std::vector<nlohmann::ordered_json> replies() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return replies_;
  }
  // The one reply; a null value (and a test failure by the caller) when there is
  // not exactly one.
  nlohmann::ordered_json only() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return replies_.size() == 1 ? replies_[0] : nlohmann::ordered_json();
  }

protected:
  int send_message(const nlohmann::ordered_json& message) override
  {
    std::lock_guard<std::mutex> guard(lock_);
    replies_.push_back(message);
    return 0;
  }

private:
  mutable std::mutex lock_;
  std::vector<nlohmann::ordered_json> replies_;
};

#endif
