#ifndef HOST_EWS_EWS_B64_DATA_H
#define HOST_EWS_EWS_B64_DATA_H

#include <cstddef>
#include <memory>
#include <string>

// An item's exported content (the decoded ExportItems data), shared between
// copies of the item. A null `ptr` means "no data" (not exported, or failed).
struct EWS_b64_Data
{
  std::shared_ptr<unsigned char> ptr;
  int size = 0;

  // A buffer holding a copy of [bytes, bytes + len).
  static EWS_b64_Data copy_of(const unsigned char* bytes, size_t len);
  // Decodes base64 text (whitespace skipped). False for malformed text.
  static bool decode(const char* text, size_t len, EWS_b64_Data& out);
  // The base64 form of [bytes, bytes + len).
  static std::string encode(const unsigned char* bytes, size_t len);
};

#endif
