#ifndef APPS_BACKUP_AGENT_BOUNDED_TASK_QUEUE_H
#define APPS_BACKUP_AGENT_BOUNDED_TASK_QUEUE_H

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// The HTTP server's workers: a fixed number of threads taking accepted
// connections from a queue of at most `max_queued`. When the queue is full the
// accepting thread waits in enqueue(), so further connections wait in the
// kernel's listen backlog instead of in memory: however many clients come, the
// agent holds at most `threads` requests in work and `max_queued` waiting.
// shutdown() lets the workers finish what is queued and joins them.
class Bounded_Task_Queue : public httplib::TaskQueue
{
public:
  Bounded_Task_Queue(size_t threads, size_t max_queued);
  ~Bounded_Task_Queue() override;

  void enqueue(std::function<void()> task) override;
  void shutdown() override;

private:
  void work();

  const size_t max_queued_;
  std::mutex lock_;
  std::condition_variable not_empty_;
  std::condition_variable not_full_;
  std::deque<std::function<void()>> tasks_;
  bool shutting_down_ = false;
  std::vector<std::thread> threads_;
};

#endif
