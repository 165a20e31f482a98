#ifndef HOST_BASE_TRIM_H
#define HOST_BASE_TRIM_H

#include <cctype>
#include <string>

// The text without the white space (as isspace in the C locale) at either end.
// Header values, SOAP codes and key-file lines are all compared after this.
inline std::string trim_space(const std::string& text)
{
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin])))
    ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1])))
    --end;
  return text.substr(begin, end - begin);
}

#endif
