#ifndef APPS_BACKUP_AGENT_FOLDER_PATH_H
#define APPS_BACKUP_AGENT_FOLDER_PATH_H

#include <string>
#include <vector>

// The folder names of a path given on the command line ("Inbox/Projects"), in
// order; empty names (a leading, trailing or doubled "/") are left out.
std::vector<std::string> split_folder_path(const std::string& path);

#endif
