#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_CLIENT_POOL_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_CLIENT_POOL_H

#include "host/ews/ews_client.h"

#include <ace/Thread_Mutex.h>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <vector>

// EWS clients of the target mailbox kept between the item writers of one
// restore callback, so that a worker's uploads go over one kept connection
// instead of a new client, and a new connection (a TLS handshake against
// Exchange Online), per item.
//
// A client is lent to one writer at a time: borrow() hands out an idle client
// and takes it out of the pool, or makes a new one when none is idle;
// give_back() puts it back when the writer is released. At most `max_idle`
// clients are kept idle (others are dropped), and a client that was cancelled
// is dropped rather than lent again. Any thread may call.
class EWS_Client_Pool
{
public:
  typedef boost::function<bool(EWS_Client_Ptr&)> Maker;

  EWS_Client_Pool(const Maker& maker, size_t max_idle) : maker_(maker), max_idle_(max_idle) {}
  EWS_Client_Pool(const EWS_Client_Pool&) = delete;
  EWS_Client_Pool& operator=(const EWS_Client_Pool&) = delete;

  // An idle client, or a new one from the maker (false when that fails; the
  // maker logs why).
  bool borrow(EWS_Client_Ptr& client);
  void give_back(const EWS_Client_Ptr& client);
  // Clients waiting to be lent.
  size_t idle() const;

private:
  const Maker maker_;
  const size_t max_idle_;
  mutable ACE_Thread_Mutex lock_;
  std::vector<EWS_Client_Ptr> idle_;
};

typedef boost::shared_ptr<EWS_Client_Pool> EWS_Client_Pool_Ptr;

#endif
