#ifndef HOST_MTF_MTF_FORMAT_H
#define HOST_MTF_MTF_FORMAT_H

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

// The pieces of Microsoft Tape Format 1.00a that the data files use (see
// docs/backup-set-format.md): little-endian fields, word-wise XOR checksums,
// packed dates and UTF-16LE strings.
namespace MTF_Format
{
const size_t BLOCK_SIZE = 1024;        // format logical block size
const size_t HEADER_SIZE = 52;         // common block header
const size_t STREAM_HEADER_SIZE = 22;  // stream header
const size_t HEADER_CHECKSUM_AT = 50;
const size_t STREAM_CHECKSUM_AT = 20;
const uint8_t OS_ID = 14;  // the OS id that carries no OS-specific data here
const uint8_t OS_VERSION = 1;
const uint8_t STRING_TYPE_UNICODE = 2;

// Fixed sizes of each descriptor block (common header included).
const size_t TAPE_SIZE = 94;
const size_t SSET_SIZE = 98;
const size_t VOLB_SIZE = 73;
const size_t DIRB_SIZE = 84;
const size_t FILE_SIZE = 88;
const size_t ESET_SIZE = 85;

// Common header field offsets.
const size_t OFF_ATTRIBUTES = 4;
const size_t OFF_FIRST_EVENT = 8;
const size_t OFF_OS_ID = 10;
const size_t OFF_DISPLAY_SIZE = 12;
const size_t OFF_LOGICAL_ADDRESS = 20;
const size_t OFF_CONTROL_ID = 36;
const size_t OFF_OS_DATA = 44;
const size_t OFF_STRING_TYPE = 48;

void put16(char* p, uint16_t v);
void put32(char* p, uint32_t v);
void put64(char* p, uint64_t v);
uint16_t get16(const char* p);
uint32_t get32(const char* p);
uint64_t get64(const char* p);

// XOR of the `words` little-endian 16-bit words at `p`.
uint16_t xor_checksum(const char* p, size_t words);

// MTF_DATE_TIME (5 bytes, UTC); time 0 is written as all zeros ("no date").
void put_date(char* p, time_t t);
time_t get_date(const char* p);

// UTF-8 to UTF-16LE and back; false on text that is not valid in the source form.
bool utf8_to_utf16le(const std::string& in, std::string& out);
bool utf16le_to_utf8(const std::string& in, std::string& out);

// Bytes needed to bring `n` up to a multiple of `align`.
inline size_t pad_to(uint64_t n, size_t align) { return static_cast<size_t>((align - n % align) % align); }
}  // namespace MTF_Format

#endif
