#pragma once
// Alternate forms of exo-sim's folder and item ids, for ConvertId. Every form carries the same
// tagged text as the EWS id (see mailbox_store.h), so the conversions are exact both ways:
//   EwsId        base64 of 00 03 24 + tag (the ids every other operation uses)
//   EwsLegacyId  base64 of 00 01 24 + tag
//   EntryId      base64 of the entry id: 4 flag bytes (0), a 16-byte provider uid, the tag
//   HexEntryId   the entry id in upper-case hex
//   StoreId      base64 of the entry id's length (2 bytes, little-endian) and the entry id
//   OwaId        base64 of 46 + the entry id, with '+', '/' and '=' percent-encoded
// These are exo-sim's own encodings, not byte-compatible with Exchange's; what they share with it
// is which forms exist and that ConvertId maps between them without looking the object up.
#include <string>

namespace exo_sim
{

// True for the six IdFormatType names above.
bool id_format_known(const std::string& format);

// Reads `id` given in `format` back to the tagged text; false when it is not a well-formed id of
// that form naming a folder or an item.
bool id_from_format(const std::string& format, const std::string& id, std::string& tagged);

// Writes the tagged text in `format` (which must be known).
std::string id_to_format(const std::string& format, const std::string& tagged);

}  // namespace exo_sim
