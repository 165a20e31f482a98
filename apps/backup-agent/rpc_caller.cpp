#include "apps/backup-agent/rpc_caller.h"

#include "apps/backup-agent/recording_channel.h"
#include "apps/backup-agent/rpc_method_table.h"
#include "host/base/log.h"

bool RPC_Caller::init(std::string& error)
{
  return RPC_Method_Table::build(module_.library(), methods_, table_, error);
}

bool RPC_Caller::call(const std::string& method, const nlohmann::ordered_json& params, nlohmann::ordered_json& result,
                      std::string& error)
{
  const auto entry = table_.find(method);
  if (entry == table_.end())
  {
    error = "no method " + method;
    return false;
  }
  void (*release)(void*) = nullptr;
  JSON_RPC_Handler* handler = entry->second(&release);
  if (handler == nullptr || release == nullptr)
  {
    error = "the handler of " + method + " could not be made";
    // Without its release function a module's object cannot be freed safely;
    // it is left alone.
    if (handler != nullptr)
      LOG_UNEXPECTED("release of the JSON-RPC handler is NULL");
    return false;
  }
  Recording_Channel* recorder = new Recording_Channel();
  JSON_RPC_Channel_Ptr channel(recorder);
  JSON_RPC_Object_Ptr request(new JSON_RPC_Object(JSON_RPC_REQUEST, 1, method, params));
  handler->handle_object(channel, request);
  release(handler);
  nlohmann::ordered_json reply;
  if (!recorder->reply(reply))
  {
    error = "the handler of " + method + " sent no reply";
    return false;
  }
  if (reply.contains("error"))
  {
    const nlohmann::ordered_json& e = reply["error"];
    error = e.value("message", std::string("error")) + " (code " + std::to_string(e.value("code", 0)) + ")";
    return false;
  }
  result = reply.value("result", nlohmann::ordered_json());
  return true;
}
