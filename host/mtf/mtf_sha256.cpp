#include "host/mtf/mtf_sha256.h"

#include <openssl/evp.h>

MTF_Sha256::MTF_Sha256() : ctx_(EVP_MD_CTX_new()) { EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr); }

MTF_Sha256::~MTF_Sha256() { EVP_MD_CTX_free(ctx_); }

void MTF_Sha256::update(const void* data, size_t len)
{
  if (len > 0)
    EVP_DigestUpdate(ctx_, data, len);
}

std::string MTF_Sha256::hex()
{
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_DigestFinal_ex(ctx_, digest, &len);
  EVP_DigestInit_ex(ctx_, EVP_sha256(), nullptr);
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < len; ++i)
  {
    out.push_back(digits[digest[i] >> 4]);
    out.push_back(digits[digest[i] & 0xf]);
  }
  return out;
}
