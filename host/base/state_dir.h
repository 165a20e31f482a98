#ifndef HOST_BASE_STATE_DIR_H
#define HOST_BASE_STATE_DIR_H

#include <string>

// <agent state folder>/<name>, created (mode 0700) when missing. Empty when the
// agent has no state folder or it cannot be created.
std::string state_subdir(const std::string& name);

// Creates `dir` and its missing parents with `mode`; true when it exists after.
bool make_dirs(const std::string& dir, unsigned int mode);

#endif
