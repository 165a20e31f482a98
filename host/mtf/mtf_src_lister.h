#ifndef HOST_MTF_MTF_SRC_LISTER_H
#define HOST_MTF_MTF_SRC_LISTER_H

#include <memory>

#include "host/mtf/mtf_types.h"

namespace MTF
{
// Further sources that a backup callback finds by itself. When a channel's
// callback gives one (IBackup_Callback::make_source_lister), the channel walks its
// entries after the configured sources are all taken. Used by that channel only.
class ISrc_Lister
{
public:
  // The next source; false when there is none left.
  virtual bool next(source_entry& entry) = 0;
  virtual ~ISrc_Lister() = default;
};

typedef std::shared_ptr<ISrc_Lister> ISrc_Lister_var;
}  // namespace MTF

#endif
