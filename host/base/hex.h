#ifndef HOST_BASE_HEX_H
#define HOST_BASE_HEX_H

// The value of a hexadecimal digit (either case), or -1.
inline int hex_digit_value(char c)
{
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

#endif
