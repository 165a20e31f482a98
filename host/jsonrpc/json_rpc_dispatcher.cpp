#include "host/jsonrpc/json_rpc_dispatcher.h"

#include "host/base/log.h"

#include <exception>
#include <new>
#include <utility>

namespace
{
typedef nlohmann::ordered_json json;

// Takes the one reply of one request. A second reply is refused: a request is
// answered once.
class Reply_Channel : public JSON_RPC_Channel
{
public:
  bool replied() const { return replied_; }
  json& reply() { return reply_; }

protected:
  int send_message(const json& message) override
  {
    if (replied_)
    {
      LOG_MSG(LM_WARNING, "JSON-RPC request already answered, a second reply is dropped.\n");
      return -1;
    }
    reply_ = message;
    replied_ = true;
    return 0;
  }

private:
  bool replied_ = false;
  json reply_;
};

bool is_valid_id(const json& id) { return id.is_string() || id.is_number() || id.is_null(); }

void append_error(json& replies, int code, const json& id)
{
  replies.push_back(JSON_RPC_Channel::error_object(code, id, nullptr, json()));
}

std::string to_text(const json& value)
{
  // Texts from mailboxes may hold invalid UTF-8; they are replaced, never thrown on.
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}
}  // namespace

JSON_RPC_Dispatcher::JSON_RPC_Dispatcher(Method_Table methods) : methods_(std::move(methods)) {}

std::string JSON_RPC_Dispatcher::dispatch(const std::string& body, const Requester_Check& requester_present) const
{
  bool too_deep = false;
  const json::parser_callback_t depth_check = [&too_deep](int depth, json::parse_event_t, json&)
  {
    if (depth > MAX_DEPTH)
      too_deep = true;
    return true;
  };
  json message = json::parse(body, depth_check, false);
  if (message.is_discarded())
    return to_text(JSON_RPC_Channel::error_object(JSON_RPC_Channel::PARSE_ERROR, json(), nullptr, json()));
  if (too_deep)
    return to_text(JSON_RPC_Channel::error_object(JSON_RPC_Channel::INVALID_REQUEST, json(), nullptr, json()));

  json replies = json::array();
  if (!message.is_array())
  {
    handle_message(message, requester_present, replies);
    return replies.empty() ? std::string() : to_text(replies[0]);
  }
  if (message.empty())
    return to_text(JSON_RPC_Channel::error_object(JSON_RPC_Channel::INVALID_REQUEST, json(), nullptr, json()));
  if (message.size() > MAX_BATCH)
    return to_text(JSON_RPC_Channel::error_object(JSON_RPC_Channel::INVALID_REQUEST, json(),
                                                  "Invalid Request: a batch holds at most 100 requests.", json()));
  for (json& member : message)
    handle_message(member, requester_present, replies);
  return replies.empty() ? std::string() : to_text(replies);
}

void JSON_RPC_Dispatcher::handle_message(json& message, const Requester_Check& requester_present, json& replies) const
{
  if (!message.is_object())
  {
    append_error(replies, JSON_RPC_Channel::INVALID_REQUEST, json());
    return;
  }
  const auto id_it = message.find("id");
  const bool has_id = id_it != message.end();
  const json id = has_id && is_valid_id(*id_it) ? *id_it : json();
  const auto version = message.find("jsonrpc");
  const auto method = message.find("method");
  const auto params = message.find("params");
  if (version == message.end() || *version != "2.0" || method == message.end() || !method->is_string() ||
      (params != message.end() && !params->is_object() && !params->is_array()) || (has_id && !is_valid_id(*id_it)))
  {
    append_error(replies, JSON_RPC_Channel::INVALID_REQUEST, id);
    return;
  }
  if (!has_id)
    return;  // a notification: no reply, whatever its method

  const std::string& name = method->get_ref<const std::string&>();
  const auto entry = methods_.find(name);
  if (entry == methods_.end())
  {
    append_error(replies, JSON_RPC_Channel::METHOD_NOT_FOUND, id);
    return;
  }

  JSON_RPC_Object* request = new (std::nothrow)
    JSON_RPC_Object(JSON_RPC_REQUEST, id, name, params == message.end() ? json() : std::move(*params));
  if (request == nullptr)
  {
    LOG_MSG(LM_ERROR, "Failed to allocate JSON-RPC request, method = %s.\n", name.c_str());
    append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
    return;
  }
  JSON_RPC_Object_Ptr obj(request);

  void (*release)(void*) = nullptr;
  JSON_RPC_Handler* handler = nullptr;
  try
  {
    if (entry->second)
      handler = entry->second(&release);
  }
  catch (const std::exception& e)
  {
    LOG_MSG(LM_ERROR, "Failed to make the handler of JSON-RPC method %s: %s\n", name.c_str(), e.what());
    append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
    return;
  }
  catch (...)
  {
    LOG_MSG(LM_ERROR, "Failed to make the handler of JSON-RPC method %s: unknown exception.\n", name.c_str());
    append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
    return;
  }
  if (handler == nullptr)
  {
    LOG_MSG(LM_ERROR, "Failed to make the handler of JSON-RPC method %s.\n", name.c_str());
    append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
    return;
  }

  Reply_Channel* reply_channel = new (std::nothrow) Reply_Channel();
  if (reply_channel == nullptr)
  {
    LOG_MSG(LM_ERROR, "Failed to allocate JSON-RPC reply channel, method = %s.\n", name.c_str());
    append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
  }
  else
  {
    JSON_RPC_Channel_Ptr channel(reply_channel);
    const bool present = !requester_present || requester_present();
    try
    {
      handler->handle_object(present ? channel : JSON_RPC_Channel_Ptr(), obj);
    }
    catch (const std::exception& e)
    {
      LOG_MSG(LM_ERROR, "JSON-RPC method %s failed: %s\n", name.c_str(), e.what());
    }
    catch (...)
    {
      LOG_MSG(LM_ERROR, "JSON-RPC method %s failed with an unknown exception.\n", name.c_str());
    }
    if (reply_channel->replied())
      replies.push_back(std::move(reply_channel->reply()));
    else if (present)
      append_error(replies, JSON_RPC_Channel::INTERNAL_ERROR, id);
  }

  if (release != nullptr)
    release(handler);
  else
  {
    // Every factory hands back its release function; without one the object can
    // still be destroyed through its virtual destructor.
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, release of JSON-RPC method %s is NULL:\n%?\n", name.c_str());
    delete handler;
  }
}
