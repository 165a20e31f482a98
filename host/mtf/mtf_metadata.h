#ifndef HOST_MTF_MTF_METADATA_H
#define HOST_MTF_MTF_METADATA_H

#include <string>

// What a backup records about who wrote it: the agent string (for instance
// "backup.exchange.linux-x86"), kept in the set's catalog file and its data
// files' headers. A plain value.
class MTF_Metadata
{
public:
  void set_agent(const std::string& agent) { agent_ = agent; }
  const std::string& get_agent() const { return agent_; }

private:
  std::string agent_;
};

#endif
