#ifndef HOST_EWS_EWS_B64_DECODER_H
#define HOST_EWS_EWS_B64_DECODER_H

#include "host/ews/ews_b64_data.h"

#include <cstddef>
#include <memory>
#include <vector>

// Decodes base64 text given in pieces of any size (as an answer arrives),
// straight into one buffer; whitespace is skipped. Once a piece is malformed the
// decoder stays failed. One thread at a time.
class EWS_b64_Decoder
{
public:
  // `expected` bytes are reserved up front (a size hint; 0 for none).
  explicit EWS_b64_Decoder(size_t expected = 0);

  // False from the first malformed character on.
  bool feed(const char* text, size_t len);
  // True when all text fed was well-formed base64 of whole quanta.
  bool finish() const;
  // The decoded bytes, handed over without a copy (the decoder is empty after).
  EWS_b64_Data take();

private:
  std::unique_ptr<std::vector<unsigned char>> bytes_;
  unsigned int acc_ = 0;
  int bits_ = 0;
  int padding_ = 0;
  size_t symbols_ = 0;
  bool failed_ = false;
};

#endif
