#include "host/ews/ews_b64_data.h"

#include "host/ews/ews_b64_decoder.h"

#include <cstring>

namespace
{
const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

EWS_b64_Data EWS_b64_Data::copy_of(const unsigned char* bytes, size_t len)
{
  EWS_b64_Data data;
  data.ptr.reset(new unsigned char[len ? len : 1], std::default_delete<unsigned char[]>());
  if (len)
    std::memcpy(data.ptr.get(), bytes, len);
  data.size = static_cast<int>(len);
  return data;
}

bool EWS_b64_Data::decode(const char* text, size_t len, EWS_b64_Data& out)
{
  EWS_b64_Decoder decoder(len / 4 * 3);
  if (!decoder.feed(text, len) || !decoder.finish())
    return false;
  out = decoder.take();
  return true;
}

std::string EWS_b64_Data::encode(const unsigned char* bytes, size_t len)
{
  std::string text;
  text.reserve((len + 2) / 3 * 4);
  for (size_t i = 0; i < len; i += 3)
  {
    const unsigned int b0 = bytes[i];
    const unsigned int b1 = i + 1 < len ? bytes[i + 1] : 0;
    const unsigned int b2 = i + 2 < len ? bytes[i + 2] : 0;
    const unsigned int triple = (b0 << 16) | (b1 << 8) | b2;
    text.push_back(alphabet[(triple >> 18) & 0x3F]);
    text.push_back(alphabet[(triple >> 12) & 0x3F]);
    text.push_back(i + 1 < len ? alphabet[(triple >> 6) & 0x3F] : '=');
    text.push_back(i + 2 < len ? alphabet[triple & 0x3F] : '=');
  }
  return text;
}
