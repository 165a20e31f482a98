#include "host/job/instance.h"

nlohmann::ordered_json Instance::to_json() const
{
  nlohmann::ordered_json out = nlohmann::ordered_json::object();
  out["type"] = type;
  out["name"] = name;
  out["uuid"] = uuid;
  nlohmann::ordered_json opts = nlohmann::ordered_json::object();
  for (const auto& option : options)
    opts[option.first] = option.second;
  out["options"] = std::move(opts);
  return out;
}
