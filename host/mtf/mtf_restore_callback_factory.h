#ifndef HOST_MTF_MTF_RESTORE_CALLBACK_FACTORY_H
#define HOST_MTF_MTF_RESTORE_CALLBACK_FACTORY_H

#include "host/mtf/mtf_restore_callback.h"

namespace MTF
{
// Makes one callback per restore worker; `make` runs on each worker's thread,
// concurrently. An empty result fails that worker (the others take its work).
// Owned by the stream's creator; outlives the run.
class IRestore_Callback_Factory
{
public:
  virtual IRestore_Callback_var make() = 0;
  virtual ~IRestore_Callback_Factory() = default;
};
}  // namespace MTF

#endif
