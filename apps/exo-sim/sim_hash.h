#pragma once
// Deterministic mixing used for generated data and fault decisions. Everything the simulator
// "chooses" goes through these, so the same seed always gives the same mailboxes and faults.
#include <cstdint>
#include <string>

namespace exo_sim
{

inline uint64_t mix64(uint64_t x)
{
  x += 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

inline uint64_t mix64(uint64_t a, uint64_t b) { return mix64(a ^ mix64(b)); }
inline uint64_t mix64(uint64_t a, uint64_t b, uint64_t c) { return mix64(mix64(a, b), c); }
inline uint64_t mix64(uint64_t a, uint64_t b, uint64_t c, uint64_t d) { return mix64(mix64(a, b, c), d); }

inline uint64_t hash_text(const std::string& s)
{
  uint64_t h = 0xcbf29ce484222325ULL;  // FNV-1a, then mixed
  for (unsigned char c : s)
  {
    h ^= c;
    h *= 0x100000001b3ULL;
  }
  return mix64(h);
}

// A number in [0, 1) from a hash.
inline double unit_interval(uint64_t h) { return static_cast<double>(h >> 11) / 9007199254740992.0; }

}  // namespace exo_sim
