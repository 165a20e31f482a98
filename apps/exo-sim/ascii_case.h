#ifndef APPS_EXO_SIM_ASCII_CASE_H
#define APPS_EXO_SIM_ASCII_CASE_H

#include <string>

namespace exo_sim
{
// `s` with A-Z turned to a-z and every other byte kept: the case folding that
// Exchange's names, addresses and scopes compare by.
inline std::string ascii_lower(std::string s)
{
  for (char& c : s)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return s;
}
}  // namespace exo_sim

#endif
