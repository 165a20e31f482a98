#include "host/mtf/mtf_read_ahead.h"

#include <utility>

class MTF_Read_Ahead::Queue_Sink : public MTF_Read_Ahead::Sink
{
public:
  Queue_Sink(MTF_Read_Ahead& owner, const MTF_Set_Catalog::Entry* entry) : owner_(owner), entry_(entry) {}

  bool put(std::vector<char>& data) override { return owner_.put(entry_, first_, data); }
  bool first() const { return first_; }

private:
  MTF_Read_Ahead& owner_;
  const MTF_Set_Catalog::Entry* const entry_;
  bool first_ = true;  // no piece of the file queued yet
};

MTF_Read_Ahead::MTF_Read_Ahead(Next_File next, Read_File read, uint64_t max_bytes)
  : next_(std::move(next)), read_(std::move(read)), max_bytes_(max_bytes)
{
}

MTF_Read_Ahead::~MTF_Read_Ahead() { stop(); }

void MTF_Read_Ahead::start(Thread_Hook hook)
{
  thread_ = std::thread([this, hook] { run(hook); });
}

void MTF_Read_Ahead::stop()
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    queue_.clear();
    queued_bytes_ = 0;
    changed_.notify_all();
  }
  if (thread_.joinable())
    thread_.join();
}

void MTF_Read_Ahead::run(const Thread_Hook& hook)
{
  if (hook)
    hook(true);
  for (;;)
  {
    {
      // One file ahead at most: the next one is begun only when the worker has
      // begun every file queued so far.
      std::unique_lock<std::mutex> guard(lock_);
      changed_.wait(guard, [this] { return stopping_ || unbegun_ == 0; });
      if (stopping_)
        break;
    }
    const MTF_Set_Catalog::Entry* entry = nullptr;
    if (!next_(entry))
      break;
    Queue_Sink sink(*this, entry);
    std::string error;
    const bool ok = read_(*entry, sink, error);
    if (ok && error.empty())
      close(entry, sink.first(), true, std::string());
    else
      close(entry, sink.first(), false, error.empty() ? "it could not be read" : error);
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    finished_ = true;
    changed_.notify_all();
  }
  if (hook)
    hook(false);
}

bool MTF_Read_Ahead::put(const MTF_Set_Catalog::Entry* entry, bool& first, std::vector<char>& data)
{
  std::unique_lock<std::mutex> guard(lock_);
  const uint64_t size = data.size();
  changed_.wait(guard, [this, size] { return stopping_ || queue_.empty() || queued_bytes_ + size <= max_bytes_; });
  if (stopping_)
    return false;
  Piece piece;
  piece.entry = entry;
  piece.first = first;
  piece.data.swap(data);
  queue_.push_back(std::move(piece));
  queued_bytes_ += size;
  if (first)
    ++unbegun_;
  first = false;
  changed_.notify_all();
  return true;
}

void MTF_Read_Ahead::close(const MTF_Set_Catalog::Entry* entry, bool first, bool ok, const std::string& error)
{
  std::lock_guard<std::mutex> guard(lock_);
  if (stopping_)
    return;
  Piece piece;
  piece.entry = entry;
  piece.first = first;
  piece.end = true;
  piece.ok = ok;
  piece.error = error;
  queue_.push_back(std::move(piece));
  if (first)
    ++unbegun_;
  changed_.notify_all();
}

bool MTF_Read_Ahead::take(Piece& piece)
{
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return stopping_ || !queue_.empty() || finished_; });
  if (stopping_ || queue_.empty())
    return false;
  piece = std::move(queue_.front());
  queue_.pop_front();
  queued_bytes_ -= piece.data.size();
  if (piece.first)
    --unbegun_;
  changed_.notify_all();
  return true;
}
