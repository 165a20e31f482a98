#include "host/storage/client_io_base.h"

#include "host/storage/storage_name.h"

void Client_IO_Base::Options::set_extra_option(const std::string& name, const std::string& value)
{
  extra_options[name] = value;
}

const std::string* Client_IO_Base::Options::extra_option(const std::string& name) const
{
  auto it = extra_options.find(name);
  return it == extra_options.end() ? nullptr : &it->second;
}

bool Client_IO_Base::get_contents(const std::string& name, std::string& text)
{
  text.clear();
  if (!open_read(name, 0))
    return false;
  std::vector<char> buf(64 * 1024);
  long long n;
  while ((n = read(buf.data(), buf.size())) > 0)
    text.append(buf.data(), static_cast<size_t>(n));
  close_read();
  return n == 0;
}

bool Client_IO_Base::fail(const std::string& text)
{
  status_ = Host_Status::make(HOST_STATUS_PERMANENT, "", text);
  last_error_ = text;
  return false;
}

bool Client_IO_Base::fail(const Host_Status& status, const std::string& context)
{
  status_ = status;
  last_error_ = context.empty() ? status.text() : context + ": " + status.text();
  return false;
}

bool Client_IO_Base::check_name(const std::string& name)
{
  if (is_valid_storage_name(name))
    return true;
  // The name is the caller's own text, but may hold NUL or control bytes.
  std::string shown;
  for (char c : name)
    shown += (static_cast<unsigned char>(c) < 0x20) ? '?' : c;
  return fail("invalid object name '" + shown + "'");
}
