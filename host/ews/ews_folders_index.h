#ifndef HOST_EWS_EWS_FOLDERS_INDEX_H
#define HOST_EWS_EWS_FOLDERS_INDEX_H

#include "host/ews/ews_folder.h"

#include <string>
#include <vector>

// The mailbox index: a mailbox's folder tree with its items, and the ids of the
// items whose export failed, as one JSON text (format in docs/mailbox-index.md).

// Current format version written by dump_ews_folders.
extern const int ews_folders_index_version;

// Serialises `folders` (recursively, with subfolders and items),
// `failed_items` and the transport that exported the items ("ews" or "graph").
// Item data is not part of the index. Always succeeds.
bool dump_ews_folders(const EWS_Folders& folders, std::string& text, const std::vector<std::string>& failed_items,
                      const std::string& transport = "ews");

// Reads a text written by dump_ews_folders into `folders` (replaced). Malformed
// or truncated text, an unknown version, a missing or mistyped field: false,
// `folders` left empty and the reason logged at error level.
bool load_ews_folders(const std::string& text, EWS_Folders& folders);
// As above, also giving the failed items and the reason of a failure.
bool load_ews_folders(const std::string& text, EWS_Folders& folders, std::vector<std::string>& failed_items,
                      std::string& error);
// As above, also giving the transport that wrote the items ("ews" for a version 1 index).
bool load_ews_folders(const std::string& text, EWS_Folders& folders, std::vector<std::string>& failed_items,
                      std::string& transport, std::string& error);

#endif
