#ifndef BACKUP_EXCHANGE_CORE_EWS_PAGINATOR_H
#define BACKUP_EXCHANGE_CORE_EWS_PAGINATOR_H

#include <algorithm>

// Walks [0, total) in pages of `steps`: each next() moves to the following page
// and says whether it starts inside the range; offset() and limit() describe
// it. Total 10 in steps of 4 gives (0, 4), (4, 4), (8, 2), then false. A plain
// value, no shared state.
class Paginator
{
public:
  Paginator(int total, int steps)
    : total_(std::max(total, 0)),
      steps_(std::max(0, std::min(total_, steps))),
      offset_(0),
      curr_offset_(0),
      curr_limit_(steps_)
  {
  }

  bool next()
  {
    curr_offset_ = offset_;
    curr_limit_ = steps_;
    // total_ may be INT_MAX (an unknown length): never step past it.
    offset_ = steps_ > total_ - offset_ ? total_ : offset_ + steps_;
    steps_ = std::min(total_ - offset_, steps_);
    return curr_offset_ < total_;
  }

  int offset() const { return curr_offset_; }
  int limit() const { return curr_limit_; }

private:
  const int total_;
  int steps_;
  int offset_;
  int curr_offset_;
  int curr_limit_;
};

#endif
