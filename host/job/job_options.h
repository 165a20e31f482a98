#ifndef HOST_JOB_JOB_OPTIONS_H
#define HOST_JOB_JOB_OPTIONS_H

#include "host/job/yajl_parser.h"

#include <string>
#include <yajl/yajl_gen.h>

// The options object of a job definition. Each module defines its own; the host
// only stores it and asks it to write itself back as JSON.
class Job_Options
{
public:
  virtual ~Job_Options() {}
  // Writes one JSON object into `g`; 0 on success.
  virtual int generate(yajl_gen g) = 0;
};

typedef YAJL_Parser<Job_Options>::Result_var Job_Options_var;

// The JSON text of an object that generates itself with YAJL (compact form).
template <typename T>
std::string generate_json(T& object)
{
  std::string text;
  yajl_gen g = yajl_gen_alloc(nullptr);
  if (g == nullptr)
    return text;
  if (object.generate(g) == 0)
  {
    const unsigned char* buf = nullptr;
    size_t len = 0;
    if (yajl_gen_get_buf(g, &buf, &len) == yajl_gen_status_ok)
      text.assign(reinterpret_cast<const char*>(buf), len);
  }
  yajl_gen_free(g);
  return text;
}

// YAJL generation helpers for the common value kinds.
inline void gen_json_key(yajl_gen g, const char* key)
{
  yajl_gen_string(g, reinterpret_cast<const unsigned char*>(key), std::char_traits<char>::length(key));
}
inline void gen_json_string(yajl_gen g, const std::string& text)
{
  yajl_gen_string(g, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

#endif
