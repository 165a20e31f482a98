#include "host/ews/ews_b64_decoder.h"

namespace
{
int sextet(char c)
{
  if (c >= 'A' && c <= 'Z')
    return c - 'A';
  if (c >= 'a' && c <= 'z')
    return c - 'a' + 26;
  if (c >= '0' && c <= '9')
    return c - '0' + 52;
  if (c == '+')
    return 62;
  if (c == '/')
    return 63;
  return -1;
}

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
}  // namespace

EWS_b64_Decoder::EWS_b64_Decoder(size_t expected) : bytes_(new std::vector<unsigned char>())
{
  bytes_->reserve(expected);
}

bool EWS_b64_Decoder::feed(const char* text, size_t len)
{
  for (size_t i = 0; i < len && !failed_; ++i)
  {
    const char c = text[i];
    if (is_space(c))
      continue;
    ++symbols_;
    if (c == '=')
    {
      ++padding_;
      continue;
    }
    const int v = sextet(c);
    if (v < 0 || padding_ > 0)
    {
      failed_ = true;
      break;
    }
    acc_ = (acc_ << 6) | static_cast<unsigned int>(v);
    bits_ += 6;
    if (bits_ >= 8)
    {
      bits_ -= 8;
      bytes_->push_back(static_cast<unsigned char>((acc_ >> bits_) & 0xFF));
    }
  }
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
