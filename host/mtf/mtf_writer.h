#ifndef HOST_MTF_MTF_WRITER_H
#define HOST_MTF_MTF_WRITER_H

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

struct ZSTD_CCtx_s;

// Encodes one data file of a backup set in Microsoft Tape Format 1.00a: TAPE,
// SSET and VOLB, then DIRB and FILE descriptor blocks (a FILE's data in one STAN
// stream), then ESET; every block starts on the 1024-byte grid and ends with an
// SPAD stream up to the next grid line. With compression, the encoded bytes go
// through zstd as a series of independent frames, each beginning at a block
// boundary, so that a reader can start decompressing at any frame (see
// docs/backup-set-format.md).
//
// Encoded bytes go to the sink in pieces of up to a few hundred KiB; memory stays
// bounded whatever is written. A false sink result, or a call out of order, makes
// the writer fail from then on (error() says why). One thread at a time.
class MTF_Writer
{
public:
  typedef std::function<bool(const char* data, size_t len)> Sink;

  struct Set_Info
  {
    std::string media_name;   // TAPE media name
    std::string set_name;     // SSET data set name
    std::string description;  // SSET data set description
    std::string user;         // SSET user name
    std::string software;     // TAPE software name
    std::string volume;       // VOLB volume name
    std::string machine;      // VOLB machine name
    uint32_t family_id = 0;   // TAPE media family id
    time_t when = 0;          // media and set dates
  };

  // Where a FILE block landed: `offset` is its place in the encoded (MTF) bytes;
  // `frame` is the stored offset of the zstd frame holding it and `frame_base`
  // that frame's first MTF offset (both equal to `offset` without compression).
  struct Location
  {
    uint64_t offset = 0;
    uint64_t frame = 0;
    uint64_t frame_base = 0;
  };

  // `zstd_level` 0 means no compression; otherwise a zstd level (clamped).
  MTF_Writer(Sink sink, int zstd_level);
  ~MTF_Writer();
  MTF_Writer(const MTF_Writer&) = delete;
  MTF_Writer& operator=(const MTF_Writer&) = delete;

  bool begin(const Set_Info& info);
  // A DIRB for the directory whose path components are `components` (empty: the
  // root); `dir_id` receives the id that FILE blocks refer to.
  bool add_directory(const std::vector<std::string>& components, time_t mtime, time_t ctime, uint32_t& dir_id);
  // A FILE block and the header of its STAN stream of `size` bytes.
  bool begin_file(uint32_t dir_id, const std::string& name, time_t mtime, time_t ctime, uint64_t size, Location& where);
  // Data of the current file; never more than its announced size in total.
  bool file_data(const char* data, size_t len);
  // Ends the current file. When less than its size has come, the rest is written
  // as zeros (the stream keeps its announced length) and `complete` is false.
  bool end_file(bool& complete);
  // The ESET, then everything still held is handed to the sink.
  bool finish(uint32_t corrupt_files);

  // Whether `name` can be a file name or directory component: not empty, no NUL,
  // valid UTF-8, at most 16000 characters.
  static bool valid_name(const std::string& name);

  uint64_t position() const { return position_; }  // MTF bytes encoded
  uint64_t stored() const { return stored_; }      // bytes handed to the sink
  bool compressed() const { return zstd_ != nullptr; }
  const std::string& error() const { return error_; }

  // Frames are cut at the first block boundary after this many MTF bytes.
  static const uint64_t FRAME_TARGET = 1024 * 1024;

private:
  enum State
  {
    NEW,
    OPEN,
    IN_FILE,
    DONE,
    FAILED
  };

  bool fail(const std::string& text);
  bool emit(const char* data, size_t len);
  bool emit_zeros(size_t len);
  bool push_stored(const char* data, size_t len);
  bool flush_stage();
  bool end_frame();
  bool maybe_cut_frame();
  // Builds a descriptor block of `type` with `fixed` bytes of fields, the strings
  // placed after them (their TAPE_ADDRESS fields at `string_fields`), and emits
  // it up to its first stream.
  bool emit_block(const char* type, std::string& block, const std::vector<std::pair<size_t, std::string>>& strings,
                  uint64_t display_size);
  bool emit_stream_header(const char* id, uint64_t length);
  bool emit_spad();

  Sink sink_;
  ZSTD_CCtx_s* zstd_ = nullptr;
  std::string stage_;
  std::string zout_;
  State state_ = NEW;
  uint64_t position_ = 0;
  uint64_t stored_ = 0;
  uint64_t sset_position_ = 0;
  uint64_t frame_ = 0;
  uint64_t frame_base_ = 0;
  uint32_t control_id_ = 0;
  uint32_t next_dir_id_ = 1;
  uint32_t next_file_id_ = 1;
  uint64_t file_left_ = 0;
  time_t when_ = 0;
  std::string error_;
};

#endif
