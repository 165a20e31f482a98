#include "host/storage/client_io_ex.h"

#include "host/storage/client_io_file.h"
#include "host/storage/client_io_http.h"
#include "host/storage/client_io_s3.h"
#include "host/storage/s3_location.h"

#include <mutex>

namespace
{
std::mutex factory_lock;
Client_IO_Ex::Factory test_factory;
}  // namespace

Client_IO_Ex::Client_IO_Ex() = default;
Client_IO_Ex::~Client_IO_Ex() = default;

std::unique_ptr<Client_IO_Base> Client_IO_Ex::make_default(const std::string& location)
{
  if (location.compare(0, 7, "http://") == 0 || location.compare(0, 8, "https://") == 0)
    return std::unique_ptr<Client_IO_Base>(new Client_IO_Http);
  if (S3_Location::has_scheme(location))
    return std::unique_ptr<Client_IO_Base>(new Client_IO_S3);
  if (location.compare(0, 7, "file://") == 0)
    return std::unique_ptr<Client_IO_Base>(new Client_IO_File);
  return nullptr;
}

void Client_IO_Ex::set_factory_for_tests(Factory factory)
{
  std::lock_guard<std::mutex> guard(factory_lock);
  test_factory = std::move(factory);
}

bool Client_IO_Ex::open(const std::string& location, const Client_IO_Base::Options& options)
{
  impl_.reset();
  location_.clear();
  std::unique_ptr<Client_IO_Base> impl;
  {
    std::lock_guard<std::mutex> guard(factory_lock);
    impl = test_factory ? test_factory(location) : make_default(location);
  }
  if (!impl)
  {
    last_error_ = "unsupported storage location: " + location;
    status_ = Host_Status::make(HOST_STATUS_PERMANENT, "", last_error_);
    return false;
  }
  if (!impl->open(location, options))
  {
    status_ = impl->status();
    last_error_ = impl->last_error();
    return false;
  }
  impl_ = std::move(impl);
  location_ = location;
  status_ = Host_Status::success();
  last_error_.clear();
  return true;
}

bool Client_IO_Ex::not_open()
{
  last_error_ = "storage client is not open";
  status_ = Host_Status::make(HOST_STATUS_PERMANENT, "", last_error_);
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

bool Client_IO_Ex::write(const void* data, size_t len) { return impl_ ? impl_->write(data, len) : not_open(); }

bool Client_IO_Ex::close_write() { return impl_ ? impl_->close_write() : not_open(); }

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

bool Client_IO_Ex::remove(const std::string& name) { return impl_ ? impl_->remove(name) : not_open(); }

uint64_t Client_IO_Ex::storage_size() const { return impl_ ? impl_->storage_size() : 0; }

const Host_Status& Client_IO_Ex::status() const { return impl_ ? impl_->status() : status_; }

const std::string& Client_IO_Ex::last_error() const { return impl_ ? impl_->last_error() : last_error_; }
