#include "backup/exchange/core/ews/ews_restore_callback_factory.h"

#include "backup/exchange/core/ews/ews_restore_callback.h"

#include <cerrno>
#include <new>

MTF::IRestore_Callback_var EWS_Restore_Callback_Factory::make()
{
  EWS_Restore_Callback* callback = new (std::nothrow) EWS_Restore_Callback(ctx_);
  if (callback == nullptr)
  {
    errno = ENOMEM;
    return MTF::IRestore_Callback_var();
  }
  return MTF::IRestore_Callback_var(callback);
}
