#ifndef HOST_HTTP_HTTP_QUERY_STRING_ITERATOR_H
#define HOST_HTTP_HTTP_QUERY_STRING_ITERATOR_H

#include <string>
#include <utility>

// Walks the key/value pairs of a query string ("a=1&b=x%20y"), percent-decoded
// ("+" decodes to a space). Empty segments are skipped; a key without "=" has an
// empty value; a pair that does not decode is skipped. Built with null, or once
// past the last pair, it equals the end iterator HTTP_Query_String_Iterator(nullptr).
class HTTP_Query_String_Iterator
{
public:
  typedef std::pair<std::string, std::string> value_type;

  explicit HTTP_Query_String_Iterator(const char* query);

  const value_type& operator*() const { return pair_; }
  const value_type* operator->() const { return &pair_; }
  HTTP_Query_String_Iterator& operator++();
  bool operator==(const HTTP_Query_String_Iterator& other) const { return next_ == other.next_; }
  bool operator!=(const HTTP_Query_String_Iterator& other) const { return next_ != other.next_; }

private:
  void advance();

  const char* next_;  // start of the pair held in pair_, null at the end
  const char* rest_;  // where the next pair starts
  value_type pair_;
};

#endif
