#include "apps/backup-agent/bounded_task_queue.h"

Bounded_Task_Queue::Bounded_Task_Queue(size_t threads, size_t max_queued) : max_queued_(max_queued > 0 ? max_queued : 1)
{
  for (size_t i = 0; i < (threads > 0 ? threads : 1); ++i)
    threads_.emplace_back([this] { work(); });
}

Bounded_Task_Queue::~Bounded_Task_Queue() { shutdown(); }

void Bounded_Task_Queue::enqueue(std::function<void()> task)
{
  std::unique_lock<std::mutex> guard(lock_);
  not_full_.wait(guard, [this] { return tasks_.size() < max_queued_ || shutting_down_; });
  // The server stops accepting before it shuts the queue down; a task that
  // still comes is run rather than dropped, so that its socket is closed.
  tasks_.push_back(std::move(task));
  not_empty_.notify_one();
}

void Bounded_Task_Queue::shutdown()
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (shutting_down_ && threads_.empty())
      return;
    shutting_down_ = true;
  }
  not_empty_.notify_all();
  not_full_.notify_all();
  for (std::thread& t : threads_)
    if (t.joinable())
      t.join();
  threads_.clear();
}

void Bounded_Task_Queue::work()
{
  for (;;)
  {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> guard(lock_);
      not_empty_.wait(guard, [this] { return !tasks_.empty() || shutting_down_; });
      if (tasks_.empty())
        return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
      not_full_.notify_one();
    }
    task();
  }
}
