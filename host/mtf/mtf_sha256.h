#ifndef HOST_MTF_MTF_SHA256_H
#define HOST_MTF_MTF_SHA256_H

#include <cstddef>
#include <string>

struct evp_md_ctx_st;

// Incremental SHA-256 (OpenSSL libcrypto). One thread at a time.
class MTF_Sha256
{
public:
  MTF_Sha256();
  ~MTF_Sha256();
  MTF_Sha256(const MTF_Sha256&) = delete;
  MTF_Sha256& operator=(const MTF_Sha256&) = delete;

  void update(const void* data, size_t len);
  // The digest as 64 lower-case hex digits; starts over afterwards.
  std::string hex();

private:
  evp_md_ctx_st* ctx_;
};

#endif
