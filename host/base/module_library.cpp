#include "host/base/module_library.h"

#include "host/base/log.h"

Module_Library::Module_Library() : open_(false) {}

Module_Library::~Module_Library()
{
  if (open_)
    dll_.close();
}

bool Module_Library::open(const std::string& path)
{
  if (dll_.open(path.c_str(), RTLD_NOW | RTLD_LOCAL, false) != 0)
  {
    const ACE_TCHAR* why = dll_.error();
    error_ = "cannot load module " + path + ": " + (why ? why : "unknown error");
    LOG_MSG(LM_ERROR, "%s\n", error_.c_str());
    return false;
  }
  open_ = true;
  LOG_MSG(LM_DEBUG, "Loaded module %s.\n", path.c_str());
  return true;
}

Module_Library::Make_Function Module_Library::make_function(const std::string& name)
{
  if (!open_)
  {
    error_ = "no module is loaded";
    return nullptr;
  }
  const std::string symbol = "_make_" + name;
  void* address = dll_.symbol(symbol.c_str());
  if (address == nullptr)
  {
    error_ = "the module has no " + symbol;
    return nullptr;
  }
  return reinterpret_cast<Make_Function>(address);
}
