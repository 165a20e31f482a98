#ifndef HOST_STORAGE_STORAGE_NAME_H
#define HOST_STORAGE_STORAGE_NAME_H

#include <string>

// Whether `name` may name an object in a pool: not empty, no NUL byte, no ".."
// or "." component, no empty component (leading, doubled or trailing "/"), no
// backslash, and no component beginning with ".~" (reserved for temporaries). Both the storage clients and backupd
// check names with this.
bool is_valid_storage_name(const std::string& name);

#endif
