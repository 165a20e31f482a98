#pragma once
// One answer of a simulated service, with what the request log and the counters record of it.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "apps/exo-sim/export_stream.h"

namespace exo_sim
{

struct Sim_Reply
{
  int status = 200;
  std::string content_type = "application/json; charset=utf-8";
  std::string body;
  std::shared_ptr<const Export_Stream> stream;  // when set, the body is produced from it instead
  std::vector<std::pair<std::string, std::string>> headers;
  bool drop = false;  // close the connection after sending part of the body

  // For the request log and the counters.
  std::string service;
  std::string op;
  std::string mailbox;
  std::string code;  // EWS response code / Graph or OAuth error code of the whole call
  long items = 0;
};

}  // namespace exo_sim
