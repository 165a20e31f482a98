#ifndef APPS_BACKUP_AGENT_RECORDING_CHANNEL_H
#define APPS_BACKUP_AGENT_RECORDING_CHANNEL_H

#include "host/jsonrpc/json_rpc_channel.h"

#include <mutex>

// A JSON-RPC channel that keeps the one reply a handler sends, for the agent's
// commands that call the handlers in-process (RPC_Caller). A second reply is
// refused (-1), as over the network.
class Recording_Channel : public JSON_RPC_Channel
{
public:
  // True when a reply was sent; `reply` is the whole reply object
  // ({"jsonrpc", "result" or "error", "id"}).
  bool reply(nlohmann::ordered_json& reply) const;

protected:
  int send_message(const nlohmann::ordered_json& message) override;

private:
  mutable std::mutex lock_;
  bool sent_ = false;
  nlohmann::ordered_json reply_;
};

#endif
