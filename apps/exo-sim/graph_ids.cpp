#include "apps/exo-sim/graph_ids.h"

#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/mailbox_store.h"

namespace exo_sim
{

namespace
{

const std::string k_graph_prefix("\x10\x34\x95", 3);  // encodes as "EDSV..."

}  // namespace

std::string base64url_encode(const std::string& bytes)
{
  std::string text = base64_encode(bytes);
  for (auto& c : text)
    c = c == '+' ? '-' : c == '/' ? '_' : c;
  return text;
}

bool base64url_decode(const std::string& text, std::string& bytes)
{
  std::string standard = text;
  for (auto& c : standard)
  {
    if (c == '+' || c == '/' || c == ' ' || c == '\t' || c == '\r' || c == '\n')
      return false;
    c = c == '-' ? '+' : c == '_' ? '/' : c;
  }
  return base64_decode(standard, bytes);
}

std::string graph_id_from_ews(const std::string& ews_id)
{
  std::string tagged;
  if (!decode_sim_id(ews_id, tagged))
    return "";
  return base64url_encode(k_graph_prefix + tagged);
}

bool ews_id_from_graph(const std::string& graph_id, std::string& ews_id)
{
  std::string raw;
  if (graph_id.empty() || !base64url_decode(graph_id, raw) || raw.size() <= k_graph_prefix.size() ||
      raw.compare(0, k_graph_prefix.size(), k_graph_prefix) != 0)
    return false;
  ews_id = make_item_id(raw.substr(k_graph_prefix.size()));
  return true;
}

}  // namespace exo_sim
