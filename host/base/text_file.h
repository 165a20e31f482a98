#ifndef HOST_BASE_TEXT_FILE_H
#define HOST_BASE_TEXT_FILE_H

#include <string>

// Reads a whole file into `out`; false when it cannot be opened or read.
bool read_text_file(const std::string& path, std::string& out);

#endif
