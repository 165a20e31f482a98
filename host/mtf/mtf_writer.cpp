#include "host/mtf/mtf_writer.h"

#include <cstring>
#include <zstd.h>

#include "host/mtf/mtf_format.h"

using namespace MTF_Format;

// Stored bytes are handed to the sink in pieces of about this size: big enough
// for few storage calls, small enough to keep a channel's memory flat.
static const size_t STAGE_SIZE = 256 * 1024;

MTF_Writer::MTF_Writer(Sink sink, int zstd_level) : sink_(std::move(sink))
{
  if (zstd_level > 0)
  {
    zstd_ = ZSTD_createCCtx();
    int level = zstd_level > ZSTD_maxCLevel() ? ZSTD_maxCLevel() : zstd_level;
    if (zstd_ != nullptr)
      ZSTD_CCtx_setParameter(zstd_, ZSTD_c_compressionLevel, level);
    zout_.resize(ZSTD_CStreamOutSize());
  }
  stage_.reserve(STAGE_SIZE);
}

MTF_Writer::~MTF_Writer() { ZSTD_freeCCtx(zstd_); }

bool MTF_Writer::fail(const std::string& text)
{
  if (state_ != FAILED)
    error_ = text;
  state_ = FAILED;
  return false;
}

bool MTF_Writer::flush_stage()
{
  if (stage_.empty())
    return true;
  bool ok = sink_(stage_.data(), stage_.size());
  stage_.clear();
  return ok ? true : fail("cannot store the data file");
}

bool MTF_Writer::push_stored(const char* data, size_t len)
{
  stored_ += len;
  // A large piece (file data) goes to the sink as it is, after what is staged:
  // copying it through the stage would cost a copy of every byte of the set.
  if (len >= STAGE_SIZE)
  {
    if (!flush_stage())
      return false;
    return sink_(data, len) ? true : fail("cannot store the data file");
  }
  stage_.append(data, len);
  return stage_.size() >= STAGE_SIZE ? flush_stage() : true;
}

bool MTF_Writer::emit(const char* data, size_t len)
{
  if (state_ == FAILED)
    return false;
  position_ += len;
  if (zstd_ == nullptr)
    return push_stored(data, len);
  ZSTD_inBuffer in = {data, len, 0};
  while (in.pos < in.size)
  {
    ZSTD_outBuffer out = {&zout_[0], zout_.size(), 0};
    size_t rc = ZSTD_compressStream2(zstd_, &out, &in, ZSTD_e_continue);
    if (ZSTD_isError(rc))
      return fail(std::string("zstd: ") + ZSTD_getErrorName(rc));
    if (out.pos > 0 && !push_stored(zout_.data(), out.pos))
      return false;
  }
  return true;
}

bool MTF_Writer::emit_zeros(size_t len)
{
  static const char zeros[4096] = {};
  while (len > 0)
  {
    size_t piece = len < sizeof zeros ? len : sizeof zeros;
    if (!emit(zeros, piece))
      return false;
    len -= piece;
  }
  return true;
}

bool MTF_Writer::end_frame()
{
  if (zstd_ == nullptr)
    return true;
  ZSTD_inBuffer in = {nullptr, 0, 0};
  size_t left;
  do
  {
    ZSTD_outBuffer out = {&zout_[0], zout_.size(), 0};
    left = ZSTD_compressStream2(zstd_, &out, &in, ZSTD_e_end);
    if (ZSTD_isError(left))
      return fail(std::string("zstd: ") + ZSTD_getErrorName(left));
    if (out.pos > 0 && !push_stored(zout_.data(), out.pos))
      return false;
  } while (left != 0);
  frame_ = stored_;
  frame_base_ = position_;
  return true;
}

// A frame ends only between blocks, so every frame starts with a whole block and
// a restore can begin decompressing right at the frame of the file it wants.
bool MTF_Writer::maybe_cut_frame()
{
  if (zstd_ == nullptr)
  {
    frame_ = stored_;
    frame_base_ = position_;
    return true;
  }
  if (position_ - frame_base_ < FRAME_TARGET)
    return true;
  return end_frame();
}

bool MTF_Writer::emit_stream_header(const char* id, uint64_t length)
{
  char h[STREAM_HEADER_SIZE] = {};
  memcpy(h, id, 4);
  put64(h + 8, length);
  put16(h + STREAM_CHECKSUM_AT, xor_checksum(h, STREAM_CHECKSUM_AT / 2));
  return emit(h, sizeof h);
}

// The pad stream takes the rest of the block; when its own header does not fit,
// it runs on to the end of the following block.
bool MTF_Writer::emit_spad()
{
  if (!emit_zeros(pad_to(position_, 4)))
    return false;
  uint64_t after_header = position_ + STREAM_HEADER_SIZE;
  size_t len = pad_to(after_header, BLOCK_SIZE);
  return emit_stream_header("SPAD", len) && emit_zeros(len);
}

bool MTF_Writer::emit_block(const char* type, std::string& block,
                            const std::vector<std::pair<size_t, std::string>>& strings, uint64_t display_size)
{
  if (position_ % BLOCK_SIZE != 0)
    return fail("descriptor block off the block grid");
  for (const auto& s : strings)
  {
    std::string wide;
    if (!utf8_to_utf16le(s.second, wide))
      return fail("name is not valid UTF-8: " + s.second);
    if (wide.size() > 0xffff || block.size() + wide.size() > 0xffff)
      return fail("name too long: " + s.second);
    put16(&block[s.first], static_cast<uint16_t>(wide.size()));
    put16(&block[s.first + 2], static_cast<uint16_t>(block.size()));
    block += wide;
  }
  block.append(pad_to(block.size(), 4), '\0');
  memcpy(&block[0], type, 4);
  put16(&block[OFF_FIRST_EVENT], static_cast<uint16_t>(block.size()));
  block[OFF_OS_ID] = static_cast<char>(OS_ID);
  block[OFF_OS_ID + 1] = static_cast<char>(OS_VERSION);
  put64(&block[OFF_DISPLAY_SIZE], display_size);
  uint64_t lba = memcmp(type, "TAPE", 4) == 0 ? 0 : (position_ - sset_position_) / BLOCK_SIZE;
  put64(&block[OFF_LOGICAL_ADDRESS], lba);
  put32(&block[OFF_CONTROL_ID], memcmp(type, "TAPE", 4) == 0 ? 0 : control_id_++);
  block[OFF_STRING_TYPE] = static_cast<char>(STRING_TYPE_UNICODE);
  put16(&block[HEADER_CHECKSUM_AT], xor_checksum(block.data(), HEADER_CHECKSUM_AT / 2));
  return emit(block.data(), block.size());
}

bool MTF_Writer::begin(const Set_Info& info)
{
  if (state_ != NEW)
    return fail("data file already begun");
  when_ = info.when;
  std::string tape(TAPE_SIZE, '\0');
  put32(&tape[52], info.family_id);
  put16(&tape[60], 1);  // media sequence number
  put16(&tape[84], BLOCK_SIZE);
  put_date(&tape[88], when_);
  tape[93] = 1;  // format major version
  if (!emit_block("TAPE", tape, {{68, info.media_name}, {80, info.software}}, 0) || !emit_spad())
    return false;

  sset_position_ = position_;
  std::string sset(SSET_SIZE, '\0');
  put16(&sset[62], 1);  // data set number
  put64(&sset[80], position_ / BLOCK_SIZE);
  put_date(&sset[88], when_);
  sset[93] = 1;  // software major version
  sset[96] = 0;  // format minor version (1.00a)
  if (!emit_block("SSET", sset, {{64, info.set_name}, {68, info.description}, {76, info.user}}, 0) || !emit_spad())
    return false;

  std::string volb(VOLB_SIZE, '\0');
  put_date(&volb[68], when_);
  if (!emit_block("VOLB", volb, {{56, std::string("storage")}, {60, info.volume}, {64, info.machine}}, 0) ||
      !emit_spad())
    return false;
  state_ = OPEN;
  return true;
}

bool MTF_Writer::add_directory(const std::vector<std::string>& components, time_t mtime, time_t ctime, uint32_t& dir_id)
{
  if (state_ != OPEN)
    return fail("directory outside an open data file");
  if (!maybe_cut_frame())
    return false;
  // Components each end in a NUL; the root is a single NUL.
  std::string name;
  for (const std::string& c : components)
  {
    if (c.empty() || c.find('\0') != std::string::npos)
      return fail("invalid directory component");
    name += c;
    name.push_back('\0');
  }
  if (components.empty())
    name.push_back('\0');
  std::string dirb(DIRB_SIZE, '\0');
  put_date(&dirb[56], mtime);
  put_date(&dirb[61], ctime);
  put_date(&dirb[66], when_);
  dir_id = next_dir_id_++;
  put32(&dirb[76], dir_id);
  return emit_block("DIRB", dirb, {{80, name}}, 0) && emit_spad();
}

bool MTF_Writer::begin_file(uint32_t dir_id, const std::string& name, time_t mtime, time_t ctime, uint64_t size,
                            Location& where)
{
  if (state_ != OPEN)
    return fail("file outside an open data file");
  if (name.empty() || name.find('\0') != std::string::npos)
    return fail("invalid file name");
  if (!maybe_cut_frame())
    return false;
  where.offset = position_;
  where.frame = frame_;
  where.frame_base = frame_base_;
  std::string file(FILE_SIZE, '\0');
  put_date(&file[56], mtime);
  put_date(&file[61], ctime);
  put_date(&file[66], when_);
  put32(&file[76], dir_id);
  put32(&file[80], next_file_id_++);
  if (!emit_block("FILE", file, {{84, name}}, size) || !emit_stream_header("STAN", size))
    return false;
  file_left_ = size;
  state_ = IN_FILE;
  return true;
}

bool MTF_Writer::file_data(const char* data, size_t len)
{
  if (state_ != IN_FILE)
    return fail("file data outside a file");
  if (len > file_left_)
    return fail("more file data than announced");
  file_left_ -= len;
  return emit(data, len);
}

bool MTF_Writer::end_file(bool& complete)
{
  if (state_ != IN_FILE)
    return fail("end of a file that was not begun");
  complete = file_left_ == 0;
  if (!emit_zeros(file_left_))
    return false;
  file_left_ = 0;
  state_ = OPEN;
  return emit_spad();
}

bool MTF_Writer::finish(uint32_t corrupt_files)
{
  if (state_ != OPEN)
    return fail("data file is not open");
  std::string eset(ESET_SIZE, '\0');
  put32(&eset[56], corrupt_files);
  put16(&eset[78], 1);  // data set number
  put_date(&eset[80], when_);
  if (!emit_block("ESET", eset, {}, 0) || !emit_spad() || !end_frame() || !flush_stage())
    return false;
  state_ = DONE;
  return true;
}

bool MTF_Writer::valid_name(const std::string& name)
{
  std::string wide;
  return !name.empty() && name.find('\0') == std::string::npos && utf8_to_utf16le(name, wide) && wide.size() <= 32000;
}
