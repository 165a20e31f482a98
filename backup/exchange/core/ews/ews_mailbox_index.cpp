#include "backup/exchange/core/ews/ews_mailbox_index.h"

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "host/base/log.h"
#include "host/ews/ews_folders_index.h"

bool write_mailbox_index(EWS_Backup_Context& ctx, Client_IO_Ex& channel, const std::string& mailbox,
                         const EWS_Folders& folders, const std::vector<std::string>& failed_items)
{
  std::string text;
  const std::string transport = ctx.auth() ? ctx.auth()->get().transport : "ews";
  if (!dump_ews_folders(folders, text, failed_items, transport))
    return false;
  if (!channel.is_open() && !create_io_channel(ctx.pool_uuid(), ctx.uri(), 0, channel, ctx.retry_seconds()))
    return false;
  std::string name;
  index_name(mailbox, ctx.seq(), name);
  if (!channel.put_contents(name, text, true))
  {
    LOG_MSG(LM_ERROR, "Failed to put contents to '%s': %s\n", name.c_str(), channel.last_error().c_str());
    return false;
  }
  ctx.add_out_file(name, channel.storage_size());
  return true;
}
