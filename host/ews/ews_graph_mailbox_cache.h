#ifndef HOST_EWS_EWS_GRAPH_MAILBOX_CACHE_H
#define HOST_EWS_EWS_GRAPH_MAILBOX_CACHE_H

#include <ctime>
#include <map>
#include <mutex>
#include <string>

// What the Graph transports of one client (the transport and its siblings)
// learn once and share: the Exchange mailbox id of each mailbox name, and the
// import session of each mailbox. An import session's URL carries a bearer
// token: it is kept here and in the request that uses it, nowhere else.
// Thread-safe.
class EWS_Graph_Mailbox_Cache
{
public:
  struct Import_Session
  {
    std::string url;
    time_t expires = 0;  // when the service stops taking it (UTC)
  };

  // Seconds before its expiry at which an import session is no longer used.
  static const int session_margin = 120;

  // `key` names a mailbox in one form ("upn:name" or "smtp:name").
  bool find_id(const std::string& key, std::string& id) const;
  void put_id(const std::string& key, const std::string& id);

  // An import session of `mailbox_id` usable at `now` for a while yet.
  bool find_session(const std::string& mailbox_id, time_t now, Import_Session& session) const;
  void put_session(const std::string& mailbox_id, const Import_Session& session);
  // Forgets the session of `mailbox_id` when it is still the one with `url` (a
  // sibling may have renewed it meanwhile).
  void drop_session(const std::string& mailbox_id, const std::string& url);

private:
  mutable std::mutex lock_;
  std::map<std::string, std::string> ids_;
  std::map<std::string, Import_Session> sessions_;
};

#endif
