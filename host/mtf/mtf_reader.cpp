#include "host/mtf/mtf_reader.h"

#include <cstring>
#include <zstd.h>

#include "host/mtf/mtf_format.h"
#include "host/mtf/mtf_sha256.h"

using namespace MTF_Format;

static const size_t RAW_SIZE = 128 * 1024;

MTF_Reader::MTF_Reader(Source source, bool compressed, uint64_t start)
  : source_(std::move(source)), compressed_(compressed), position_(start)
{
  raw_.resize(RAW_SIZE);
  if (compressed_)
  {
    zstd_ = ZSTD_createDCtx();
    buf_.resize(ZSTD_DStreamOutSize());
  }
}

MTF_Reader::~MTF_Reader() { ZSTD_freeDCtx(zstd_); }

bool MTF_Reader::fail(const std::string& text) { return fail_at(position_, text); }

bool MTF_Reader::fail_at(uint64_t offset, const std::string& text)
{
  if (!failed_)
    error_ = "offset " + std::to_string(offset) + ": " + text;
  failed_ = true;
  return false;
}

// Makes buf_ hold at least one unread byte; false at the end or on failure.
bool MTF_Reader::fill()
{
  if (buf_pos_ < buf_len_)
    return true;
  if (failed_)
    return false;
  if (!compressed_)
  {
    if (raw_end_)
      return false;
    long long n = source_(&raw_[0], raw_.size());
    if (n < 0)
      return fail("cannot read the data file");
    if (n == 0)
    {
      raw_end_ = true;
      return false;
    }
    buf_.swap(raw_);
    if (raw_.size() < RAW_SIZE)
      raw_.resize(RAW_SIZE);
    buf_pos_ = 0;
    buf_len_ = static_cast<size_t>(n);
    return true;
  }
  if (zstd_ == nullptr)
    return fail("out of memory");
  for (;;)
  {
    if (raw_pos_ == raw_len_ && !raw_end_)
    {
      long long n = source_(&raw_[0], raw_.size());
      if (n < 0)
        return fail("cannot read the data file");
      raw_pos_ = 0;
      raw_len_ = static_cast<size_t>(n);
      raw_end_ = n == 0;
    }
    if (raw_pos_ == raw_len_ && raw_end_)
    {
      if (frame_open_)
        return fail("compressed data ends inside a zstd frame");
      return false;
    }
    ZSTD_inBuffer in = {raw_.data(), raw_len_, raw_pos_};
    ZSTD_outBuffer out = {&buf_[0], buf_.size(), 0};
    size_t rc = ZSTD_decompressStream(zstd_, &out, &in);
    raw_pos_ = in.pos;
    if (ZSTD_isError(rc))
      return fail(std::string("damaged compressed data: ") + ZSTD_getErrorName(rc));
    frame_open_ = rc != 0;
    if (out.pos > 0)
    {
      buf_pos_ = 0;
      buf_len_ = out.pos;
      return true;
    }
  }
}

bool MTF_Reader::read_exact(char* data, size_t len, const char* what)
{
  while (len > 0)
  {
    if (!fill())
      return failed_ ? false : fail(std::string("data file ends inside ") + what);
    size_t n = buf_len_ - buf_pos_ < len ? buf_len_ - buf_pos_ : len;
    memcpy(data, buf_.data() + buf_pos_, n);
    buf_pos_ += n;
    position_ += n;
    data += n;
    len -= n;
  }
  return true;
}

bool MTF_Reader::skip(uint64_t len)
{
  while (len > 0)
  {
    if (!fill())
      return failed_ ? false : fail("data file ends early");
    uint64_t n = buf_len_ - buf_pos_ < len ? buf_len_ - buf_pos_ : len;
    buf_pos_ += n;
    position_ += n;
    len -= n;
  }
  return true;
}

bool MTF_Reader::skip_to(uint64_t offset)
{
  if (failed_)
    return false;
  if (offset < position_)
    return fail("cannot move back to offset " + std::to_string(offset));
  stream_left_ = 0;
  return skip(offset - position_);
}

bool MTF_Reader::at_end() { return !fill(); }

static bool read_string(const std::string& block, size_t field, size_t fixed, std::string& out)
{
  uint16_t size = get16(&block[field]);
  uint16_t offset = get16(&block[field + 2]);
  if (size == 0)
  {
    out.clear();
    return true;
  }
  if (offset < fixed || static_cast<size_t>(offset) + size > block.size())
    return false;
  return utf16le_to_utf8(block.substr(offset, size), out);
}

static size_t fixed_size(const std::string& type)
{
  if (type == "TAPE")
    return TAPE_SIZE;
  if (type == "SSET")
    return SSET_SIZE;
  if (type == "VOLB")
    return VOLB_SIZE;
  if (type == "DIRB")
    return DIRB_SIZE;
  if (type == "FILE")
    return FILE_SIZE;
  if (type == "ESET")
    return ESET_SIZE;
  return HEADER_SIZE;
}

bool MTF_Reader::read_block(Block& block)
{
  if (failed_)
    return false;
  if (position_ % BLOCK_SIZE != 0)
    return fail("descriptor block off the 1024-byte grid");
  block = Block();
  block.offset = position_;
  std::string raw(HEADER_SIZE, '\0');
  if (!read_exact(&raw[0], HEADER_SIZE, "a block header"))
    return false;
  for (int i = 0; i < 4; ++i)
    if (raw[i] < 'A' || raw[i] > 'Z')
      return fail_at(block.offset, "no descriptor block here");
  block.type = raw.substr(0, 4);
  if (xor_checksum(raw.data(), HEADER_CHECKSUM_AT / 2) != get16(&raw[HEADER_CHECKSUM_AT]))
    return fail_at(block.offset, block.type + " block header checksum mismatch");
  size_t fixed = fixed_size(block.type);
  size_t first_event = get16(&raw[OFF_FIRST_EVENT]);
  if (first_event < fixed || first_event % 4 != 0)
    return fail_at(block.offset, block.type + " block has a bad offset to its first stream");
  raw.resize(first_event);
  if (!read_exact(&raw[HEADER_SIZE], first_event - HEADER_SIZE, "a descriptor block"))
    return false;
  block.attributes = get32(&raw[OFF_ATTRIBUTES]);
  block.display_size = get64(&raw[OFF_DISPLAY_SIZE]);
  block.logical_address = get64(&raw[OFF_LOGICAL_ADDRESS]);
  block.control_id = get32(&raw[OFF_CONTROL_ID]);
  if (static_cast<unsigned char>(raw[OFF_STRING_TYPE]) != STRING_TYPE_UNICODE &&
      static_cast<unsigned char>(raw[OFF_STRING_TYPE]) != 0)
    return fail_at(block.offset, block.type + " block has an unknown string type");
  bool strings_ok = true;
  if (block.type == "TAPE")
  {
    block.block_size = get16(&raw[84]);
    strings_ok = read_string(raw, 68, fixed, block.name);
  }
  else if (block.type == "SSET")
    strings_ok = read_string(raw, 64, fixed, block.name);
  else if (block.type == "DIRB")
  {
    block.mtime = get_date(&raw[56]);
    block.ctime = get_date(&raw[61]);
    block.dir_id = get32(&raw[76]);
    std::string name;
    strings_ok = read_string(raw, 80, fixed, name) && !name.empty() && name.back() == '\0';
    size_t start = 0;
    while (strings_ok && start < name.size())
    {
      size_t end = name.find('\0', start);
      if (end > start)
        block.directory.push_back(name.substr(start, end - start));
      start = end + 1;
    }
  }
  else if (block.type == "FILE")
  {
    block.mtime = get_date(&raw[56]);
    block.ctime = get_date(&raw[61]);
    block.dir_id = get32(&raw[76]);
    block.file_id = get32(&raw[80]);
    strings_ok = read_string(raw, 84, fixed, block.name) && !block.name.empty();
  }
  else if (block.type == "ESET")
    block.corrupt_files = get32(&raw[56]);
  if (!strings_ok)
    return fail_at(block.offset, block.type + " block has a damaged name");
  stream_left_ = 0;
  return true;
}

bool MTF_Reader::next_stream(Stream& stream)
{
  if (failed_)
    return false;
  if (stream_left_ != 0)
    return fail("stream data not consumed");
  if (!skip(pad_to(position_, 4)))
    return false;
  stream = Stream();
  stream.offset = position_;
  char h[STREAM_HEADER_SIZE];
  if (!read_exact(h, sizeof h, "a stream header"))
    return false;
  for (int i = 0; i < 4; ++i)
    if (h[i] < 'A' || h[i] > 'Z')
      return fail("no stream header here");
  stream.id.assign(h, 4);
  if (xor_checksum(h, STREAM_CHECKSUM_AT / 2) != get16(h + STREAM_CHECKSUM_AT))
    return fail(stream.id + " stream header checksum mismatch");
  stream.length = get64(h + 8);
  if (stream.id == "SPAD")
  {
    if ((position_ + stream.length) % BLOCK_SIZE != 0)
      return fail("SPAD stream does not end on the 1024-byte grid");
    return skip(stream.length);
  }
  stream_left_ = stream.length;
  return true;
}

long long MTF_Reader::read_data(char* data, size_t len)
{
  if (failed_)
    return -1;
  if (stream_left_ == 0)
    return 0;
  // Nothing buffered and a large request: read straight into the caller's
  // memory, sparing a copy of every data byte.
  size_t direct = len < stream_left_ ? len : static_cast<size_t>(stream_left_);
  if (!compressed_ && buf_pos_ == buf_len_ && !raw_end_ && direct >= RAW_SIZE)
  {
    long long n = source_(data, direct);
    if (n <= 0)
    {
      if (n == 0)
        raw_end_ = true;
      fail(n < 0 ? "cannot read the data file" : "data file ends inside a data stream");
      return -1;
    }
    position_ += static_cast<uint64_t>(n);
    stream_left_ -= static_cast<uint64_t>(n);
    return n;
  }
  if (!fill())
  {
    if (!failed_)
      fail("data file ends inside a data stream");
    return -1;
  }
  size_t n = buf_len_ - buf_pos_;
  if (n > len)
    n = len;
  if (n > stream_left_)
    n = static_cast<size_t>(stream_left_);
  memcpy(data, buf_.data() + buf_pos_, n);
  buf_pos_ += n;
  position_ += n;
  stream_left_ -= n;
  return static_cast<long long>(n);
}

bool MTF_Reader::skip_data()
{
  uint64_t left = stream_left_;
  stream_left_ = 0;
  return skip(left);
}

bool MTF_Reader::read_streams(bool hash, Data_Digest& digest)
{
  digest = Data_Digest();
  Stream stream;
  MTF_Sha256 sha;
  while (next_stream(stream) && stream.id != "SPAD")
  {
    if (stream.id != "STAN" || !hash || digest.seen)
    {
      if (!skip_data())
        return false;
      continue;
    }
    digest.seen = true;
    digest.length = stream.length;
    piece_.resize(256 * 1024);
    long long n;
    while ((n = read_data(piece_.data(), piece_.size())) > 0)
      sha.update(piece_.data(), static_cast<size_t>(n));
    if (n < 0)
      return false;
    digest.sha256 = sha.hex();
  }
  return error().empty();
}
