#include "host/storage/client_io_fault.h"

#include <thread>

Client_IO_Fault::Client_IO_Fault(std::unique_ptr<Client_IO_Base> inner) : inner_(std::move(inner)) {}

void Client_IO_Fault::arm(const Faults& faults)
{
  std::lock_guard<std::mutex> guard(lock_);
  faults_ = faults;
  writes_ = 0;
}

int Client_IO_Fault::injected() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return injected_;
}

bool Client_IO_Fault::pass(bool ok)
{
  if (ok)
    return true;
  status_ = inner_->status();
  last_error_ = inner_->last_error();
  return false;
}

bool Client_IO_Fault::inject(const std::string& what)
{
  Host_Status_Kind kind;
  {
    std::lock_guard<std::mutex> guard(lock_);
    ++injected_;
    kind = faults_.kind;
  }
  return fail(Host_Status::make(kind, "injected", what), "");
}

bool Client_IO_Fault::open(const std::string& location, const Options& options)
{
  options_ = options;
  return pass(inner_->open(location, options));
}

bool Client_IO_Fault::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  if (!pass(inner_->put_contents(name, text, overwrite)))
    return false;
  storage_size_ = inner_->storage_size();
  return true;
}

bool Client_IO_Fault::open_write(const std::string& name, bool overwrite)
{
  written_ = 0;
  write_failed_ = false;
  return pass(inner_->open_write(name, overwrite));
}

bool Client_IO_Fault::write(const void* data, size_t len)
{
  Faults faults;
  int number;
  {
    std::lock_guard<std::mutex> guard(lock_);
    faults = faults_;
    number = ++writes_;
  }
  if (number == faults.stall_write)
    std::this_thread::sleep_for(faults.stall_for);
  std::string what;
  size_t pass_on = len;
  if (number == faults.fail_write)
  {
    what = "write " + std::to_string(number) + " failed";
    pass_on = 0;
  }
  else if (written_ + len > faults.cut_at)
  {
    what = "stream cut at byte " + std::to_string(faults.cut_at);
    pass_on = static_cast<size_t>(faults.cut_at - std::min(written_, faults.cut_at));
  }
  if (pass_on > 0 && !pass(inner_->write(data, pass_on)))
    return false;
  written_ += pass_on;
  if (what.empty())
    return true;
  write_failed_ = true;
  inner_->abort_write();
  return inject(what);
}

bool Client_IO_Fault::close_write()
{
  if (write_failed_)
  {
    write_failed_ = false;
    inner_->abort_write();
    return inject("the stream had failed");
  }
  if (!pass(inner_->close_write()))
    return false;
  storage_size_ = inner_->storage_size();
  return true;
}

void Client_IO_Fault::abort_write()
{
  write_failed_ = false;
  inner_->abort_write();
}

bool Client_IO_Fault::open_read(const std::string& name, uint64_t offset)
{
  read_ = offset;
  return pass(inner_->open_read(name, offset));
}

long long Client_IO_Fault::read(void* data, size_t len)
{
  uint64_t cut_at;
  {
    std::lock_guard<std::mutex> guard(lock_);
    cut_at = faults_.cut_at;
  }
  if (read_ >= cut_at)
  {
    inner_->close_read();
    inject("stream cut at byte " + std::to_string(cut_at));
    return -1;
  }
  const size_t ask = static_cast<size_t>(std::min<uint64_t>(len, cut_at - read_));
  const long long n = inner_->read(data, ask);
  if (n < 0)
    pass(false);
  else
    read_ += static_cast<uint64_t>(n);
  return n;
}

void Client_IO_Fault::close_read() { inner_->close_read(); }

bool Client_IO_Fault::size(const std::string& name, uint64_t& size) { return pass(inner_->size(name, size)); }

bool Client_IO_Fault::list(const std::string& prefix, std::vector<std::string>& names)
{
  return pass(inner_->list(prefix, names));
}

bool Client_IO_Fault::remove(const std::string& name) { return pass(inner_->remove(name)); }
