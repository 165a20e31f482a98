#include "host/job/yajl_handler.h"

#include <yajl/yajl_parse.h>

namespace
{
YAJL_Handler* self(void* ctx) { return static_cast<YAJL_Handler*>(ctx); }

int on_null(void* ctx) { return self(ctx)->handle_null_i(); }
int on_boolean(void* ctx, int v) { return self(ctx)->handle_boolean_i(v != 0); }
int on_number(void* ctx, const char* s, size_t n) { return self(ctx)->handle_number_i(s, n); }
int on_string(void* ctx, const unsigned char* s, size_t n)
{
  return self(ctx)->handle_string_i(reinterpret_cast<const char*>(s), n);
}
int on_start_map(void* ctx) { return self(ctx)->handle_start_map_i(); }
int on_map_key(void* ctx, const unsigned char* s, size_t n)
{
  return self(ctx)->handle_map_key_i(reinterpret_cast<const char*>(s), n);
}
int on_end_map(void* ctx) { return self(ctx)->handle_end_map_i(); }
int on_start_array(void* ctx) { return self(ctx)->handle_start_array_i(); }
int on_end_array(void* ctx) { return self(ctx)->handle_end_array_i(); }

// Numbers are handed over as text so that each parser applies its own limits.
const yajl_callbacks callbacks = {on_null,      on_boolean, nullptr,    nullptr,        on_number,   on_string,
                                  on_start_map, on_map_key, on_end_map, on_start_array, on_end_array};
}  // namespace

YAJL_Handler::YAJL_Handler() : err_(0) {}

YAJL_Handler::~YAJL_Handler() {}

int YAJL_Handler::parse(const char* text, size_t len)
{
  error_.clear();
  yajl_handle h = yajl_alloc(&callbacks, nullptr, this);
  if (h == nullptr)
  {
    error_ = "out of memory";
    return -1;
  }
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  yajl_status status = yajl_parse(h, bytes, len);
  if (status == yajl_status_ok)
    status = yajl_complete_parse(h);

  int result = 0;
  if (status == yajl_status_client_canceled)
  {
    error_ =
      err_ != 0 ? "rejected by the parser (error " + std::to_string(err_) + ")" : std::string("rejected by the parser");
    result = -1;
  }
  else if (status != yajl_status_ok)
  {
    unsigned char* message = yajl_get_error(h, 0, bytes, len);
    error_ = "malformed JSON: " + std::string(reinterpret_cast<const char*>(message)) + " at byte " +
             std::to_string(yajl_get_bytes_consumed(h));
    yajl_free_error(h, message);
    result = -1;
  }
  yajl_free(h);
  return result;
}

bool YAJL_Handler::handle_null_i() { return true; }
bool YAJL_Handler::handle_boolean_i(bool) { return true; }
bool YAJL_Handler::handle_number_i(const char*, size_t) { return true; }
bool YAJL_Handler::handle_string_i(const char*, size_t) { return true; }
bool YAJL_Handler::handle_start_map_i() { return true; }
bool YAJL_Handler::handle_map_key_i(const char*, size_t) { return true; }
bool YAJL_Handler::handle_end_map_i() { return true; }
bool YAJL_Handler::handle_start_array_i() { return true; }
bool YAJL_Handler::handle_end_array_i() { return true; }
