#ifndef HOST_MTF_MTF_READER_H
#define HOST_MTF_MTF_READER_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

struct ZSTD_DCtx_s;

// Decodes a data file written in Microsoft Tape Format 1.00a, checking as it goes:
// descriptor blocks on the 1024-byte grid with a valid header checksum, stream
// headers with a valid checksum on 4-byte alignment, SPAD streams ending on the
// grid, strings inside their block. Reads forward only, from a source that yields
// the stored bytes from some point on (a whole file, or a ranged read starting
// at a block, or at a zstd frame for a compressed file).
//
// Every failure leaves error() naming the offset and what was wrong; the reader
// is then unusable. One thread at a time; memory stays bounded (a few hundred KiB).
class MTF_Reader
{
public:
  // Stored bytes: returns how many were read, 0 at the end, -1 on failure.
  typedef std::function<long long(void* data, size_t len)> Source;

  struct Block
  {
    std::string type;  // "TAPE", "SSET", "VOLB", "DIRB", "FILE", "ESET", ...
    uint64_t offset = 0;
    uint32_t attributes = 0;
    uint64_t display_size = 0;
    uint64_t logical_address = 0;
    uint32_t control_id = 0;
    uint32_t dir_id = 0;                 // DIRB, FILE
    uint32_t file_id = 0;                // FILE
    std::vector<std::string> directory;  // DIRB: path components
    std::string name;                    // FILE: file name; TAPE: media name; SSET: set name
    time_t mtime = 0;
    time_t ctime = 0;
    uint32_t corrupt_files = 0;  // ESET
    uint16_t block_size = 0;     // TAPE
  };

  struct Stream
  {
    std::string id;       // "STAN", "SPAD", ...
    uint64_t offset = 0;  // of the header
    uint64_t length = 0;
  };

  // `compressed`: the stored bytes are zstd frames. `start`: the MTF offset of the
  // first byte the source yields (a block or frame start).
  MTF_Reader(Source source, bool compressed, uint64_t start = 0);
  ~MTF_Reader();
  MTF_Reader(const MTF_Reader&) = delete;
  MTF_Reader& operator=(const MTF_Reader&) = delete;

  // The descriptor block at the current position (which must be on the grid).
  bool read_block(Block& block);
  // The next stream header of the current block (after its fixed part, or after
  // the previous stream's data); the previous stream's data must be all read or
  // skipped. After an SPAD, the position is on the grid again.
  bool next_stream(Stream& stream);
  // Data of the current stream: bytes read, 0 at its end, -1 on failure.
  long long read_data(char* data, size_t len);
  bool skip_data();

  // What read_streams found among a block's streams.
  struct Data_Digest
  {
    bool seen = false;    // the block has a "STAN" (data) stream
    uint64_t length = 0;  // the length of its first one
    std::string sha256;   // that stream's SHA-256 in hex, when asked for
  };
  // Reads the streams of the current block up to the SPAD that ends it: with
  // `hash`, the first "STAN" stream's data is read and hashed into `digest`;
  // everything else is skipped. False on a read failure (error() says where).
  bool read_streams(bool hash, Data_Digest& digest);
  // Moves forward to `offset` (not backwards).
  bool skip_to(uint64_t offset);
  // True when no byte is left (false with error() set on a read failure).
  bool at_end();

  uint64_t position() const { return position_; }
  const std::string& error() const { return error_; }

private:
  bool fail(const std::string& text);
  bool fail_at(uint64_t offset, const std::string& text);
  bool fill();
  bool read_exact(char* data, size_t len, const char* what);
  bool skip(uint64_t len);

  Source source_;
  bool compressed_;
  ZSTD_DCtx_s* zstd_ = nullptr;
  std::string raw_;
  size_t raw_pos_ = 0;
  size_t raw_len_ = 0;
  bool raw_end_ = false;
  bool frame_open_ = false;
  std::string buf_;
  size_t buf_pos_ = 0;
  size_t buf_len_ = 0;
  uint64_t position_;
  uint64_t stream_left_ = 0;
  bool failed_ = false;
  std::vector<char> piece_;  // read_streams' buffer
  std::string error_;
};

#endif
