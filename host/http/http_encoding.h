#ifndef HOST_HTTP_HTTP_ENCODING_H
#define HOST_HTTP_HTTP_ENCODING_H

#include <cstddef>
#include <string>

// Percent-encoding of names, paths and query components. libcurl's
// curl_easy_escape and curl_easy_unescape are not used: they cannot keep chosen
// marks, choose the case of the digits or write a space as "+", and unescaping
// accepts a broken "%" sequence that these functions refuse.
//
// Letters, digits, "-", "_" and "." are always copied. Every other byte is escaped
// as "%" and two hexadecimal digits unless a flag below keeps it; "/" is the
// exception: it is kept unless HTTP_ENCODE_SLASH is set. Bytes of UTF-8 sequences
// are escaped one by one.
enum Http_Encode_Flag : unsigned int
{
  HTTP_ENCODE_SLASH = 0x1,          // escape "/"
  HTTP_ENCODE_SPACE_AS_PLUS = 0x2,  // a space becomes "+"
  HTTP_ENCODE_UPPER_HEX = 0x4,      // "%2F" rather than "%2f"
  HTTP_KEEP_COLON = 0x8,
  HTTP_KEEP_LEFT_PAREN = 0x10,
  HTTP_KEEP_RIGHT_PAREN = 0x20,
  HTTP_KEEP_APOSTROPHE = 0x40,
  HTTP_KEEP_ASTERISK = 0x80,
  HTTP_KEEP_EXCLAMATION = 0x200,
  HTTP_KEEP_HASH = 0x400,
  HTTP_KEEP_DOLLAR = 0x800,
  HTTP_KEEP_AMPERSAND = 0x1000,
  HTTP_KEEP_PLUS = 0x2000,
  HTTP_KEEP_COMMA = 0x4000,
  HTTP_KEEP_SEMICOLON = 0x8000,
  HTTP_KEEP_EQUALS = 0x10000,
  HTTP_KEEP_QUESTION = 0x20000,
  HTTP_KEEP_AT = 0x40000,
};

// Decoding flags.
enum Http_Decode_Flag : unsigned int
{
  HTTP_DECODE_PLUS_AS_SPACE = 0x2,  // "+" becomes a space (form encoding)
};

// Encodes [text, text + len) into `out` (replaced). An absent or empty input
// leaves `out` empty and returns false; any other input returns true.
bool http_encode_string(const char* text, size_t len, unsigned int flags, std::string& out);
bool http_encode_string(const std::string& text, unsigned int flags, std::string& out);

// Decodes [begin, end) into `out` (replaced): "%" and two hexadecimal digits (either
// case) become that byte. A "%" not followed by two hexadecimal digits makes the
// decode fail: false is returned and `out` holds what was decoded before it.
// A null range decodes to the empty text.
// Encoding modes of http_encode_string_i, each a fixed set of flags above.
enum Http_Encode_Mode
{
  HTTP_ENCODE_MODE_NAME = 1,             // a path segment: "/" escaped
  HTTP_ENCODE_MODE_PATH = 2,             // a path: "/" kept
  HTTP_ENCODE_MODE_QUERY_COMPONENT = 3,  // a query key or value: everything but letters,
                                         // digits, "-", "_", "." escaped, upper-case hex
  HTTP_ENCODE_MODE_FORM = 4,             // form fields: as 3, a space becomes "+"
};

// Encodes the NUL-terminated `text` in one of the modes above. Returns false (and
// an empty `out`) for a null or empty text or an unknown mode.
bool http_encode_string_i(const char* text, int mode, std::string& out);

bool http_decode_string(const char* begin, const char* end, unsigned int flags, std::string& out);
bool http_decode_string(const std::string& text, unsigned int flags, std::string& out);

#endif
