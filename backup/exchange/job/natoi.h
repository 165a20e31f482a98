#ifndef BACKUP_EXCHANGE_JOB_NATOI_H
#define BACKUP_EXCHANGE_JOB_NATOI_H

#include <cerrno>
#include <cstddef>
#include <limits>
#include <type_traits>

// Reads a decimal integer from [text, text + length): one optional sign, then
// digits up to the end or the first non-digit (the rest is ignored, so "12.5"
// reads as 12). errno tells the outcome: 0 for a number; EINVAL (result 0) for
// a null or empty text or one without digits; ERANGE for a number beyond the
// limits of T, whose result is then the largest T whatever the sign.
template <typename T>
T natoi(const char* text, size_t length)
{
  errno = EINVAL;
  if (text == nullptr || length == 0)
    return 0;
  const char* p = text;
  const char* end = text + length;
  bool negative = false;
  if (*p == '+' || *p == '-')
    negative = *p++ == '-';

  typedef typename std::make_unsigned<T>::type U;
  const U limit =
    negative ? static_cast<U>(std::numeric_limits<T>::max()) + 1 : static_cast<U>(std::numeric_limits<T>::max());
  U value = 0;
  bool digits = false;
  for (; p < end && *p >= '0' && *p <= '9'; ++p)
  {
    const U digit = static_cast<U>(*p - '0');
    if (value > (limit - digit) / 10)
    {
      errno = ERANGE;
      return std::numeric_limits<T>::max();
    }
    value = value * 10 + digit;
    digits = true;
  }
  if (!digits)
    return 0;
  errno = 0;
  if (negative)
    return value == limit ? std::numeric_limits<T>::min() : -static_cast<T>(value);
  return static_cast<T>(value);
}

#endif
