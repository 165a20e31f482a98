#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_MAILBOX_INDEX_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_MAILBOX_INDEX_H

#include "host/ews/ews_folder.h"
#include "host/storage/client_io_ex.h"

#include <string>
#include <vector>

class EWS_Backup_Context;

// Writes one mailbox's index file beside the backup set: the folder tree as the
// backup listed it and the ids of the items whose export failed, serialised by
// dump_ews_folders, stored as index_name(mailbox, seq) under the context's pool
// and uri through `channel` (connected here on first use, in write mode with the
// job's retry budget, and kept open for the next mailbox). On success the name
// and the stored bytes are added to the context's output files. False (logged)
// when the channel cannot be connected or the store fails; nothing is recorded
// then. Called from the stream channel that ended the mailbox.
bool write_mailbox_index(EWS_Backup_Context& ctx, Client_IO_Ex& channel, const std::string& mailbox,
                         const EWS_Folders& folders, const std::vector<std::string>& failed_items);

#endif
