#include "host/ews/ews_b64_decoder.h"

#include <array>

namespace
{
// What each character is worth: its sextet (0-63), or one of these.
const unsigned char b64_space = 64;
const unsigned char b64_pad = 65;
const unsigned char b64_bad = 255;

std::array<unsigned char, 256> make_sextets()
{
  std::array<unsigned char, 256> table;
  table.fill(b64_bad);
  const char symbols[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (unsigned char i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(symbols[i])] = i;
  for (char c : {' ', '\t', '\r', '\n'})
    table[static_cast<unsigned char>(c)] = b64_space;
  table[static_cast<unsigned char>('=')] = b64_pad;
  return table;
}

const std::array<unsigned char, 256> sextets = make_sextets();

unsigned int sextet_of(char c) { return sextets[static_cast<unsigned char>(c)]; }
}  // namespace

EWS_b64_Decoder::EWS_b64_Decoder(size_t expected) : bytes_(new std::vector<unsigned char>())
{
  bytes_->reserve(expected);
}

bool EWS_b64_Decoder::feed(const char* text, size_t len)
{
  // Room for the most this piece can add (six bits a symbol, plus what is
  // pending), trimmed to what was written at the end.
  std::vector<unsigned char>& out = *bytes_;
  const size_t base = out.size();
  out.resize(base + len / 4 * 3 + 3);
  unsigned char* w = out.data() + base;
  size_t i = 0;
  while (i < len && !failed_)
  {
    // Between quanta and before any padding, runs of four symbols make three
    // bytes at once: nearly all of an item's text.
    if (bits_ == 0 && padding_ == 0)
    {
      for (; i + 4 <= len; i += 4)
      {
        const unsigned int a = sextet_of(text[i]), b = sextet_of(text[i + 1]), c = sextet_of(text[i + 2]),
                           d = sextet_of(text[i + 3]);
        if ((a | b | c | d) >= 64)
          break;
        const unsigned int v = (a << 18) | (b << 12) | (c << 6) | d;
        w[0] = static_cast<unsigned char>(v >> 16);
        w[1] = static_cast<unsigned char>(v >> 8);
        w[2] = static_cast<unsigned char>(v);
        w += 3;
        symbols_ += 4;
      }
      if (i >= len)
        break;
    }
    // One character at a time: whitespace, padding, a quantum cut between pieces.
    const unsigned int v = sextet_of(text[i++]);
    if (v == b64_space)
      continue;
    ++symbols_;
    if (v == b64_pad)
    {
      ++padding_;
      continue;
    }
    if (v == b64_bad || padding_ > 0)
    {
      failed_ = true;
      break;
    }
    acc_ = (acc_ << 6) | v;
    bits_ += 6;
    if (bits_ >= 8)
    {
      bits_ -= 8;
      *w++ = static_cast<unsigned char>((acc_ >> bits_) & 0xFF);
    }
  }
  out.resize(static_cast<size_t>(w - out.data()));
  return !failed_;
}

bool EWS_b64_Decoder::finish() const { return !failed_ && symbols_ % 4 == 0 && padding_ <= 2; }

EWS_b64_Data EWS_b64_Decoder::take()
{
  // The buffer is shared as it is: no copy of a large item's content.
  std::shared_ptr<std::vector<unsigned char>> holder(bytes_.release());
  bytes_.reset(new std::vector<unsigned char>());
  EWS_b64_Data data;
  data.size = static_cast<int>(holder->size());
  if (holder->empty())
    holder->push_back(0);
  data.ptr = std::shared_ptr<unsigned char>(holder, holder->data());
  return data;
}
