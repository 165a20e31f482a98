#include "host/storage/client_io_ex.h"

#include "host/storage/client_io_file.h"
#include "host/storage/client_io_http.h"

Client_IO_Ex::Client_IO_Ex() = default;
Client_IO_Ex::~Client_IO_Ex() = default;

bool Client_IO_Ex::open(const std::string& location, const Client_IO_Base::Options& options)
{
  impl_.reset();
  location_.clear();
  std::unique_ptr<Client_IO_Base> impl;
  if (location.compare(0, 7, "http://") == 0 || location.compare(0, 8, "https://") == 0)
    impl.reset(new Client_IO_Http);
  else if (location.compare(0, 7, "file://") == 0)
    impl.reset(new Client_IO_File);
  else
  {
    last_error_ = "unsupported storage location: " + location;
    return false;
  }
  if (!impl->open(location, options))
  {
    last_error_ = impl->last_error();
    return false;
  }
  impl_ = std::move(impl);
  location_ = location;
  last_error_.clear();
  return true;
}

bool Client_IO_Ex::not_open()
{
  last_error_ = "storage client is not open";
  return false;
}

bool Client_IO_Ex::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  return impl_ ? impl_->put_contents(name, text, overwrite) : not_open();
}

bool Client_IO_Ex::get_contents(const std::string& name, std::string& text)
{
  return impl_ ? impl_->get_contents(name, text) : not_open();
}

bool Client_IO_Ex::open_write(const std::string& name, bool overwrite)
{
  return impl_ ? impl_->open_write(name, overwrite) : not_open();
}

bool Client_IO_Ex::write(const void* data, size_t len)
{
  return impl_ ? impl_->write(data, len) : not_open();
}

bool Client_IO_Ex::close_write()
{
  return impl_ ? impl_->close_write() : not_open();
}

void Client_IO_Ex::abort_write()
{
  if (impl_)
    impl_->abort_write();
}

bool Client_IO_Ex::open_read(const std::string& name, uint64_t offset)
{
  return impl_ ? impl_->open_read(name, offset) : not_open();
}

long long Client_IO_Ex::read(void* data, size_t len)
{
  if (impl_)
    return impl_->read(data, len);
  not_open();
  return -1;
}

void Client_IO_Ex::close_read()
{
  if (impl_)
    impl_->close_read();
}

bool Client_IO_Ex::size(const std::string& name, uint64_t& size)
{
  return impl_ ? impl_->size(name, size) : not_open();
}

bool Client_IO_Ex::list(const std::string& prefix, std::vector<std::string>& names)
{
  return impl_ ? impl_->list(prefix, names) : not_open();
}

bool Client_IO_Ex::remove(const std::string& name)
{
  return impl_ ? impl_->remove(name) : not_open();
}

uint64_t Client_IO_Ex::storage_size() const
{
  return impl_ ? impl_->storage_size() : 0;
}

const std::string& Client_IO_Ex::last_error() const
{
  return impl_ ? impl_->last_error() : last_error_;
}
