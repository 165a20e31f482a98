#ifndef HOST_HTTP_HTTP_HEADERS_H
#define HOST_HTTP_HTTP_HEADERS_H

#include <string>
#include <utility>
#include <vector>

// An ordered list of HTTP header fields. Names compare case-insensitively and
// keep the spelling they were first put with.
class HTTP_Headers
{
public:
  using Field = std::pair<std::string, std::string>;

  // Adds a field. With `replace`, every earlier field of that name is dropped first.
  void put(const std::string& name, const std::string& value, bool replace = true);
  // The value of the first field named `name`, or null.
  const std::string* get(const std::string& name) const;
  void remove(const std::string& name);
  void clear() { fields_.clear(); }
  bool empty() const { return fields_.empty(); }
  const std::vector<Field>& fields() const { return fields_; }

private:
  std::vector<Field> fields_;
};

#endif
