#ifndef HOST_EWS_EWS_PAGE_CURSOR_H
#define HOST_EWS_EWS_PAGE_CURSOR_H

#include <string>

// Where a listing goes on. Opaque to EWS_Client: each transport fills in its
// own kind of position and reads it back on the next request. SOAP pages by a
// numeric offset (IndexedPagingOffset); Microsoft Graph by the next link the
// last page named, which must be followed verbatim.
struct EWS_Page_Cursor
{
  long offset = 0;
  std::string next_link;

  static EWS_Page_Cursor at(long offset)
  {
    EWS_Page_Cursor c;
    c.offset = offset;
    return c;
  }
  bool operator==(const EWS_Page_Cursor& other) const { return offset == other.offset && next_link == other.next_link; }
  bool operator!=(const EWS_Page_Cursor& other) const { return !(*this == other); }
};

#endif
