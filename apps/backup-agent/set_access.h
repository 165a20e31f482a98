#ifndef APPS_BACKUP_AGENT_SET_ACCESS_H
#define APPS_BACKUP_AGENT_SET_ACCESS_H

#include "host/catalog/exchange_backup_set.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_item.h"
#include "host/storage/client_io_ex.h"

#include <string>
#include <vector>

// How the agent's commands reach a backup set: its record in backupd's catalog,
// then its files through the pool's storage client (the pool's URL and client
// settings from backupd, the agent's access key), never by the pool's
// directories. Stateless; any thread, as the host calls it wraps are.
class Set_Access
{
public:
  // The record of set `uuid`; false with `error` when the catalog cannot be
  // read or holds no such Exchange set.
  static bool find(const std::string& uuid, Exchange_Backup_Set& record, std::string& error);

  // Opens `io` at the set's location (pool URL + "/" + uri) for reading.
  static bool open(const Exchange_Backup_Set& record, Client_IO_Ex& io, std::string& error);

  // The mailbox an index file name stands for ("<encoded mailbox>.<rev>.idx").
  static std::string index_mailbox(const std::string& name);

  // One name (mailbox, folder display name, item name) as the backup writes it
  // into the set's paths: percent-encoded, "/" included.
  static std::string path_name(const std::string& name);
  // A path of such names ("Inbox/Sub%2Fway") as display names ("Inbox/Sub/way").
  static std::string shown_path(const std::string& path);
  // The name the backup files an item under: its display name, else its
  // subject, else "(no subject)".
  static std::string item_name(const EWS_Item& item);

  // Reads the index file `name` of the set open in `io`.
  static bool read_index(Client_IO_Ex& io, const std::string& name, EWS_Folders& tree, std::vector<std::string>& failed,
                         std::string& error);
};

#endif
