#ifndef HOST_MTF_MTF_BACKUP_CALLBACK_FACTORY_H
#define HOST_MTF_MTF_BACKUP_CALLBACK_FACTORY_H

#include "host/mtf/mtf_backup_callback.h"

namespace MTF
{
// Makes one callback per channel of a backup. `make` is called on each channel's
// own thread, concurrently; an empty result fails that channel (the other
// channels take its sources). Owned by the stream's creator; outlives the run.
class IBackup_Callback_Factory
{
public:
  virtual IBackup_Callback_var make() = 0;
  virtual ~IBackup_Callback_Factory() = default;
};
}  // namespace MTF

#endif
