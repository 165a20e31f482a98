#ifndef BACKUP_SCRT_THREAD_HELPER_H
#define BACKUP_SCRT_THREAD_HELPER_H

#include <ace/Atomic_Op.h>
#include <ace/Event.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>
#include <boost/function.hpp>

// One ACE thread running a bound callable. `spawn` returns only once the new
// thread has really begun and copied what it needs, so the callable may be bound
// to objects in the caller's frame.
//
// A joinable helper (no THR_DETACHED in its flags) keeps the thread id: `join`
// and the destructor wait for the thread. A detached helper keeps nothing: the
// thread runs on by itself and the helper may be destroyed at once.
class Thread_Helper
{
public:
  Thread_Helper(int flag, int priority);
  virtual ~Thread_Helper();

  // Runs (object->*f)() on a new thread; the member's result is discarded.
  // -1 when this helper's joinable thread still exists.
  template <typename F, typename T>
  int spawn(F f, T* object)
  {
    if (exists())
      return -1;
    _function = [f, object]() { (object->*f)(); };
    return spawn();
  }

  // Starts the thread on `_function`; the ACE thread manager's result (negative
  // on failure).
  int spawn();
  void join();
  bool exists() const;
  bool running() const;
  // Names the joinable thread (at most 15 characters are kept).
  void set_name(const char* name);

  ACE_thread_t tid() const { return _tid; }
  // Forgets the thread without waiting for it; answers its id.
  ACE_thread_t release();
  long flag() const { return _flag; }
  void flag(long f) { _flag = f; }
  long priority() const { return _priority; }
  void priority(long p) { _priority = p; }

protected:
  // Runs first in the new thread.
  virtual void handle_starting();

private:
  Thread_Helper(const Thread_Helper&) = delete;
  Thread_Helper& operator=(const Thread_Helper&) = delete;

  static ACE_THR_FUNC_RETURN ACE_Thread_Func(void* arg);

  ACE_thread_t _tid;
  boost::function<void()> _function;
  ACE_Atomic_Op<ACE_Thread_Mutex, bool> _running;
  ACE_Event* _started;
  long _flag;
  long _priority;
};

// Names a thread for debuggers and `top -H`. A name longer than the platform's
// 15 characters is logged and cut to its first 15.
void set_thread_name(const char* name, unsigned long thread);

#endif
