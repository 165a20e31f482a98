#ifndef HOST_STORAGE_BYTE_PIPE_H
#define HOST_STORAGE_BYTE_PIPE_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

// A bounded byte queue between one producer thread and one consumer thread, used
// to join a caller's streamed write or read to the HTTP transfer running on its
// own thread. `push` blocks while `capacity` bytes are queued, so memory stays
// flat whatever the object's size.
class Byte_Pipe
{
public:
  explicit Byte_Pipe(size_t capacity);

  // Queues the bytes; false when the pipe was cancelled (nothing more is taken).
  bool push(const char* data, size_t len);
  // Takes up to `len` bytes, waiting for some; 0 once the producer closed the
  // pipe and everything was taken, or when the pipe was cancelled.
  size_t pop(char* out, size_t len);
  // The producer has no more bytes.
  void close();
  // Either side gives up; blocked calls return.
  void cancel();
  bool cancelled() const;

private:
  size_t capacity_;
  mutable std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::string> chunks_;
  size_t front_offset_ = 0;
  size_t queued_ = 0;
  bool closed_ = false;
  bool cancelled_ = false;
};

#endif
