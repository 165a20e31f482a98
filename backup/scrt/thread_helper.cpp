#include "backup/scrt/thread_helper.h"

#include "host/base/log.h"

#include <ace/Thread_Manager.h>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>

namespace
{
const long DETACHED_FLAG = THR_DETACHED;
const size_t THREAD_NAME_MAX = 15;

typedef int (*Set_Name_Function)(unsigned long, const char*);
}  // namespace

Thread_Helper::Thread_Helper(int flag, int priority)
  : _tid(ACE_OS::NULL_thread), _running(false), _started(nullptr), _flag(flag), _priority(priority)
{
}

Thread_Helper::~Thread_Helper() { join(); }

int Thread_Helper::spawn()
{
  ACE_Event started(0, 0);  // auto-reset, not signalled
  _started = &started;
  int result;
  if (_flag & DETACHED_FLAG)
  {
    ACE_thread_t tid;
    result = ACE_Thread_Manager::instance()->spawn(ACE_Thread_Func, this, _flag, &tid, nullptr, _priority);
  }
  else
  {
    _running = true;
    result = ACE_Thread_Manager::instance()->spawn(ACE_Thread_Func, this, _flag, &_tid, nullptr, _priority);
    if (result < 0)
      _running = false;
  }
  if (result >= 0)
    started.wait();
  _started = nullptr;
  return result;
}

ACE_THR_FUNC_RETURN Thread_Helper::ACE_Thread_Func(void* arg)
{
  Thread_Helper* self = static_cast<Thread_Helper*>(arg);
  self->handle_starting();
  const bool detached = (self->_flag & DETACHED_FLAG) != 0;
  boost::function<void()> function = self->_function;
  // After this signal the spawning thread may return and, for a detached thread,
  // destroy the helper: only a joinable thread touches the helper again.
  if (self->_started != nullptr)
    self->_started->signal();
  function();
  if (!detached)
    self->_running = false;
  return 0;
}

void Thread_Helper::join()
{
  if (!exists())
    return;
  ACE_Thread_Manager::instance()->join(_tid);
  _tid = ACE_OS::NULL_thread;
}

bool Thread_Helper::exists() const { return !ACE_OS::thr_equal(_tid, ACE_OS::NULL_thread); }

bool Thread_Helper::running() const { return exists() && _running.value(); }

void Thread_Helper::set_name(const char* name)
{
  if (exists())
    set_thread_name(name, static_cast<unsigned long>(_tid));
}

ACE_thread_t Thread_Helper::release()
{
  ACE_thread_t tid = _tid;
  _tid = ACE_OS::NULL_thread;
  return tid;
}

void Thread_Helper::handle_starting() {}

void set_thread_name(const char* name, unsigned long thread)
{
  // Looked up at run time: platforms without thread names simply have no symbol.
  Set_Name_Function set_name = reinterpret_cast<Set_Name_Function>(::dlsym(RTLD_DEFAULT, "pthread_setname_np"));
  if (set_name == nullptr)
    return;
  int result = set_name(thread, name);
  if (result == 0)
    return;
  if (result == ERANGE)
  {
    LOG_MSG(LM_WARNING, "Thread name(%s) is too long, truncate to %d chars.\n", name,
            static_cast<int>(THREAD_NAME_MAX));
    char shortened[THREAD_NAME_MAX + 1];
    std::strncpy(shortened, name, THREAD_NAME_MAX);
    shortened[THREAD_NAME_MAX] = '\0';
    result = set_name(thread, shortened);
    if (result == 0)
      return;
  }
  LOG_MSG(LM_ERROR, "Failed to set thread name(%s): %d\n", name, result);
}
