#ifndef HOST_BASE_MODULE_LIBRARY_H
#define HOST_BASE_MODULE_LIBRARY_H

#include <ace/DLL.h>
#include <memory>
#include <string>

// A module shared object loaded at run time. Objects are made and destroyed only
// through the module's exported factory pairs:
//   void* _make_<Name>(void (**gobble)(void*));
//   void  _gobble_<Name>(void* object);
// The library must outlive every object made from it.
class Module_Library
{
public:
  typedef void (*Gobble_Function)(void*);
  typedef void* (*Make_Function)(Gobble_Function*);

  Module_Library();
  ~Module_Library();

  // Loads the shared object at `path`; false (and `error()`) on failure.
  bool open(const std::string& path);
  const std::string& error() const { return error_; }

  // Resolves _make_<name>; null (and `error()`) when the module has none.
  Make_Function make_function(const std::string& name);

  // Makes one object through _make_<name>, owned by the returned pointer, which
  // destroys it with the gobble function the module handed back. Null (and
  // `error()`) when the module has no such pair or made nothing.
  template <typename T>
  std::shared_ptr<T> make(const std::string& name)
  {
    Make_Function make = make_function(name);
    if (make == nullptr)
      return std::shared_ptr<T>();
    Gobble_Function gobble = nullptr;
    T* object = static_cast<T*>(make(&gobble));
    // Without its gobble function an object cannot be freed safely; the module
    // always hands one back with the object.
    if (object == nullptr || gobble == nullptr)
    {
      error_ = "_make_" + name + " made no object";
      return std::shared_ptr<T>();
    }
    return std::shared_ptr<T>(object, [gobble](T* p) { gobble(p); });
  }

private:
  Module_Library(const Module_Library&) = delete;
  Module_Library& operator=(const Module_Library&) = delete;

  ACE_DLL dll_;
  bool open_;
  std::string error_;
};

#endif
