#ifndef HOST_STORAGE_HTTP_HEAD_H
#define HOST_STORAGE_HTTP_HEAD_H

#include <string>

// Codes of the HTTP headers that agents and backupd exchange.
enum Http_Head_Code
{
  HTTP_HEAD_HOST_ID = 47,     // "X-Backupd-Host-Id": the calling agent's host id
  HTTP_HEAD_ACCESS_KEY = 48,  // "X-Backupd-Access-Key": the access key
};

// The name of the header with `code`, or nullptr when the code is unknown or when
// `value` could not be sent in a header (it holds CR, LF or NUL). `flags` is
// reserved and must be 0.
const char* http_head_string(int code, int flags, const std::string& value);

#endif
