#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_MTF_UTILS_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_MTF_UTILS_H

#include <list>
#include <string>

// How mailboxes, folders and items become paths of the backup stream and back,
// and how a mailbox's index file is named. Paths use "/" as separator:
//   mailbox  "/" + encode_name(mailbox) + "/"
//   folder   its parent's path, "/" once, encode_name(display name), "/" at the end
//            when the stream hands it back
//   item     its folder's path, "/" once, encode_name(item name)
// Stateless free functions; any thread.

// Percent-encoding of one path component: everything but letters, digits, "-",
// "_" and "." is escaped with lower-case hexadecimal digits, "/" included, so an
// encoded component never holds a "/". Empty for an empty name.
std::string encode_name(const std::string& name);

// The inverse of encode_name, for one component or a whole path: "%" and two
// hexadecimal digits become that byte; every other byte (also a "%" without two
// hexadecimal digits after it, and "+") is copied.
std::string decode_path(const std::string& text);

// "/%s/" of the encoded mailbox: the top directory of one mailbox in the set.
std::string mailbox_to_path(const std::string& mailbox);

// The decoded mailbox of a mailbox, folder or item path: the text between the
// first and the second "/". A path without a second "/" gives its whole rest.
std::string get_mailbox(const std::string& path);

// True when `path` ends with "/" (a mailbox path is a folder path too).
bool is_folder(const std::string& path);

// True when `path` ends with "/" and holds fewer than three "/" in all.
bool is_mailbox(const std::string& path);

// Splits `path` at "/" (adjacent separators count once, so a leading and a
// trailing "/" each give one empty token). When `skip` is smaller than that
// token count, the empty tokens are dropped, the others decoded, and the first
// `skip` removed (stopping when none is left); otherwise `out` is cleared. The
// empty tokens count in the comparison on purpose: "/a/b/" with skip 3 gives an
// empty list by removal, "/a/" with skip 3 is cleared at once. Always true.
bool path_to_list(const std::string& path, std::list<std::string>& out, int skip);

// The name of a mailbox's index file in set `seq`: the mailbox percent-encoded
// with upper-case hexadecimal digits, "/" escaped and "(", ")", "'", "*", "!"
// kept, then "." seq ".idx". Not the same text as the mailbox's path component.
void index_name(const std::string& mailbox, int seq, std::string& out);

// `dir` and `name` joined by exactly one "/" (none added when `dir` ends in one):
// the key under which a listed child is recorded and later asked for.
std::string join_path(const std::string& dir, const std::string& name);

#endif
