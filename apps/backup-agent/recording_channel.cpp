#include "apps/backup-agent/recording_channel.h"

bool Recording_Channel::reply(nlohmann::ordered_json& reply) const
{
  std::lock_guard<std::mutex> guard(lock_);
  if (sent_)
    reply = reply_;
  return sent_;
}

int Recording_Channel::send_message(const nlohmann::ordered_json& message)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (sent_)
    return -1;
  sent_ = true;
  reply_ = message;
  return 0;
}
