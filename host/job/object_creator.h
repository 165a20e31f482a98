#ifndef HOST_JOB_OBJECT_CREATOR_H
#define HOST_JOB_OBJECT_CREATOR_H

#include <cerrno>
#include <new>

// A factory for objects of type T that a loaded module hands to the host. The
// host calls `create()` once per object it needs and gives each object back to
// `destroy()`; it never deletes them itself, so allocation and release both
// happen in the module.
template <typename T>
class Object_Creator_T
{
public:
  typedef T Object_Type;

  virtual ~Object_Creator_T() {}
  virtual int init(int, char**) { return 0; }
  virtual int fini() { return 0; }
  virtual T* create() = 0;
  virtual void destroy(T* object) = 0;
};

// The creator of `Impl` objects handed out as `Base::Object_Type`. A failed
// allocation answers null with errno ENOMEM.
template <typename Base, typename Impl>
class Object_Creator_Impl_T : public Base
{
public:
  typedef typename Base::Object_Type Object_Type;

  Object_Type* create() override
  {
    Impl* object = new (std::nothrow) Impl();
    if (object == nullptr)
    {
      errno = ENOMEM;
      return nullptr;
    }
    return object;
  }

  void destroy(Object_Type* object) override
  {
    if (object != nullptr)
      delete object;
  }
};

#endif
