#ifndef HOST_STORAGE_CLIENT_IO_FAULT_H
#define HOST_STORAGE_CLIENT_IO_FAULT_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

#include "host/storage/client_io_base.h"

// A storage client that passes every call to the client it wraps and injects the
// faults armed on it, so that stream and engine tests can see how storage
// failures are handled:
// - fail the Nth streamed write (counted from arming, over all streams);
// - cut a streamed write or read at byte N of the stream: the bytes before it
//   pass, the call that would cross it fails (a dropped connection);
// - stall the Nth streamed write for a while before passing it on.
// An injected failure drops the wrapped stream (abort_write, close_read), so a
// failed write never publishes an object, as with a real dropped transfer. With no
// fault armed the wrapper behaves exactly as the wrapped client. Faults may be
// armed from any thread; the client itself is used as any Client_IO_Base.
class Client_IO_Fault : public Client_IO_Base
{
public:
  struct Faults
  {
    int fail_write = 0;            // the Nth write() fails (1 = the first); 0: none
    uint64_t cut_at = UINT64_MAX;  // streams end in failure at this byte
    int stall_write = 0;           // the Nth write() waits stall_for first; 0: none
    std::chrono::milliseconds stall_for{0};
    Host_Status_Kind kind = HOST_STATUS_TRANSIENT;  // the kind an injected failure reports
  };

  explicit Client_IO_Fault(std::unique_ptr<Client_IO_Base> inner);

  // Arms `faults` and restarts the write count; Faults() disarms.
  void arm(const Faults& faults);
  // Failures injected so far.
  int injected() const;

  bool open(const std::string& location, const Options& options) override;
  bool put_contents(const std::string& name, const std::string& text, bool overwrite) override;
  bool open_write(const std::string& name, bool overwrite) override;
  bool write(const void* data, size_t len) override;
  bool close_write() override;
  void abort_write() override;
  bool open_read(const std::string& name, uint64_t offset) override;
  long long read(void* data, size_t len) override;
  void close_read() override;
  bool size(const std::string& name, uint64_t& size) override;
  bool list(const std::string& prefix, std::vector<std::string>& names) override;
  bool remove(const std::string& name) override;

private:
  // Passes the wrapped client's result on, taking its failure as ours.
  bool pass(bool ok);
  bool inject(const std::string& what);

  std::unique_ptr<Client_IO_Base> inner_;
  mutable std::mutex lock_;
  Faults faults_;
  int writes_ = 0;
  int injected_ = 0;
  uint64_t written_ = 0;  // bytes of the current streamed write
  uint64_t read_ = 0;     // bytes of the current streamed read
  bool write_failed_ = false;
};

#endif
