#ifndef HOST_MTF_MTF_READ_AHEAD_H
#define HOST_MTF_MTF_READ_AHEAD_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/mtf/mtf_set_catalog.h"

// Reads a restore worker's files on a thread of its own, one file ahead of the
// worker: while the worker hands file k to its writer (whose upload blocks the
// worker), this thread reads, checks and decompresses file k+1.
//
// The files come from `next` on the reading thread, and each is read by `read`,
// which passes its data on in pieces through the Sink. They reach the worker
// (take) in that order, each exactly once, as its data pieces followed by one
// closing piece that tells whether the file was read whole (`read` returned
// true) or failed, with the reason. A reader that checks a file's data passes
// its last piece on only after the check, so a writer that publishes a file
// once its announced size is complete never publishes damaged data.
//
// Memory: the pieces queued hold at most `max_bytes` of data (a single piece
// larger than that only when the queue is otherwise empty), and the reading
// thread begins a file only when the worker has begun every file queued
// before it. So besides the file the worker is writing, at most one file is
// held, and of it at most max(`max_bytes`, one piece).
//
// The worker's thread calls take() and stop(); stop() (also run by the
// destructor) ends the reading thread and waits for it, and take() then
// answers false.
class MTF_Read_Ahead
{
public:
  struct Piece
  {
    const MTF_Set_Catalog::Entry* entry = nullptr;
    bool first = false;  // the file's first piece
    bool end = false;    // the closing piece: no data; `ok` and `error` tell the outcome
    bool ok = false;
    std::string error;
    std::vector<char> data;
  };

  class Sink
  {
  public:
    // Queues `data` (moved out) as the next piece of the file being read;
    // false when the read-ahead is stopping (the reader then gives up).
    virtual bool put(std::vector<char>& data) = 0;

  protected:
    ~Sink() = default;
  };

  // The next file to read; false when there is none.
  typedef std::function<bool(const MTF_Set_Catalog::Entry*& entry)> Next_File;
  // Reads one file into `sink`; false with `error` set when it cannot.
  typedef std::function<bool(const MTF_Set_Catalog::Entry& entry, Sink& sink, std::string& error)> Read_File;
  // Run on the reading thread: with true first, with false last.
  typedef std::function<void(bool starting)> Thread_Hook;

  MTF_Read_Ahead(Next_File next, Read_File read, uint64_t max_bytes);
  ~MTF_Read_Ahead();
  MTF_Read_Ahead(const MTF_Read_Ahead&) = delete;
  MTF_Read_Ahead& operator=(const MTF_Read_Ahead&) = delete;

  void start(Thread_Hook hook = Thread_Hook());
  // The next piece; waits for it. False when every file has been handed out
  // whole, or after stop().
  bool take(Piece& piece);
  void stop();

private:
  class Queue_Sink;
  void run(const Thread_Hook& hook);
  bool put(const MTF_Set_Catalog::Entry* entry, bool& first, std::vector<char>& data);
  void close(const MTF_Set_Catalog::Entry* entry, bool first, bool ok, const std::string& error);

  const Next_File next_;
  const Read_File read_;
  const uint64_t max_bytes_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Piece> queue_;
  uint64_t queued_bytes_ = 0;
  // Files whose first piece is queued and not yet taken.
  unsigned unbegun_ = 0;
  bool stopping_ = false;
  bool finished_ = false;  // the reading thread has queued its last piece
  std::thread thread_;
};

#endif
