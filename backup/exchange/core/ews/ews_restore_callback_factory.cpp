#include "backup/exchange/core/ews/ews_restore_callback_factory.h"

#include "backup/exchange/core/ews/ews_restore_callback.h"

#include <cerrno>
#include <new>

MTF::IRestore_Callback_var EWS_Restore_Callback_Factory::make()
{
  // One client kept per callback: its worker has one writer at a time.
  const EWS_Restore_Context_Ptr ctx = ctx_;
  EWS_Client_Pool_Ptr pool(
    new (std::nothrow) EWS_Client_Pool([ctx](EWS_Client_Ptr& client) { return ctx->create_ews_client(client); }, 1));
  if (pool.get() == nullptr)
  {
    errno = ENOMEM;
    return MTF::IRestore_Callback_var();
  }
  EWS_Restore_Callback* callback = new (std::nothrow) EWS_Restore_Callback(ctx_, pool);
  if (callback == nullptr)
  {
    errno = ENOMEM;
    return MTF::IRestore_Callback_var();
  }
  return MTF::IRestore_Callback_var(callback);
}
