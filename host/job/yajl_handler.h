#ifndef HOST_JOB_YAJL_HANDLER_H
#define HOST_JOB_YAJL_HANDLER_H

#include <cstddef>
#include <string>

// The receiving end of an event-driven JSON parse. `parse` drives libyajl over a
// document and calls one handler per event; a handler that answers false stops
// the parse at once, leaving its error code in `err_` (0 when it set none).
//
// The default handlers accept every event without doing anything, so a subclass
// overrides only the events it reads. One handler object parses one document.
class YAJL_Handler
{
public:
  YAJL_Handler();
  virtual ~YAJL_Handler();

  // Parses a whole document: 0 on success, -1 when the text is not JSON or a
  // handler stopped the parse. `error()` then says why.
  int parse(const char* text, size_t len);
  int parse(const std::string& text) { return parse(text.data(), text.size()); }

  int err() const { return err_; }
  // Why the last parse failed: the JSON syntax error with its position, or
  // "rejected by the parser (error N)" when a handler stopped it.
  const std::string& error() const { return error_; }

  // Event entry points (the libyajl callbacks call these).
  virtual bool handle_null_i();
  virtual bool handle_boolean_i(bool value);
  virtual bool handle_number_i(const char* text, size_t len);
  virtual bool handle_string_i(const char* text, size_t len);
  virtual bool handle_start_map_i();
  virtual bool handle_map_key_i(const char* key, size_t len);
  virtual bool handle_end_map_i();
  virtual bool handle_start_array_i();
  virtual bool handle_end_array_i();

protected:
  int err_;

private:
  YAJL_Handler(const YAJL_Handler&) = delete;
  YAJL_Handler& operator=(const YAJL_Handler&) = delete;

  std::string error_;
};

#endif
