#ifndef HOST_BASE_UUID_H
#define HOST_BASE_UUID_H

#include <string>

// Reads a textual uuid ("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", either case) into
// 16 bytes. 0 on success; -1 (and `out` zeroed) for a null or malformed text.
int uuid_string_to_binary(const char* text, unsigned char* out);

// The textual form of 16 bytes, lower case.
std::string uuid_binary_to_string(const unsigned char* bytes);

// A new random (version 4) uuid in textual form.
std::string uuid_generate_string();

#endif
