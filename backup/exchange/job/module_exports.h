#ifndef BACKUP_EXCHANGE_JOB_MODULE_EXPORTS_H
#define BACKUP_EXCHANGE_JOB_MODULE_EXPORTS_H

#include "host/job/object_creator.h"
#include "host/job/yajl_handler.h"

// The module's only exported symbols are factory pairs, resolved by name:
//   BASE* _make_<NAME>(void (**gobble)(void*))  makes one object and, when
//       `gobble` is not null, stores _gobble_<NAME> through it first;
//   void _gobble_<NAME>(void* object)  destroys an object made by it (null is
//       ignored).
// The host never deletes module objects itself, so allocation and release both
// happen inside the module.

// A pair for an object destroyed by a plain delete.
#define EXCHANGE_OBJECT_EXPORTS(NAME, TYPE, BASE)                                              \
  extern "C" BASE* _make_##NAME(void (**gobble)(void*));                                       \
  extern "C" void _gobble_##NAME(void* object);                                                \
  extern "C" __attribute__((visibility("default"))) BASE* _make_##NAME(void (**gobble)(void*)) \
  {                                                                                            \
    if (gobble != nullptr)                                                                     \
      *gobble = _gobble_##NAME;                                                                \
    return new TYPE();                                                                         \
  }                                                                                            \
  extern "C" __attribute__((visibility("default"))) void _gobble_##NAME(void* object)          \
  {                                                                                            \
    delete static_cast<BASE*>(object);                                                         \
  }

// A pair for a parser creator, whose `fini()` runs before it is deleted.
#define EXCHANGE_PARSER_CREATOR_EXPORTS(NAME, PARSER)                                               \
  extern "C" Object_Creator_T<YAJL_Handler>* _make_##NAME(void (**gobble)(void*));                  \
  extern "C" void _gobble_##NAME(void* object);                                                     \
  extern "C" __attribute__((visibility("default")))                                                 \
  Object_Creator_T<YAJL_Handler>* _make_##NAME(void (**gobble)(void*))                              \
  {                                                                                                 \
    if (gobble != nullptr)                                                                          \
      *gobble = _gobble_##NAME;                                                                     \
    return new Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, PARSER>();                     \
  }                                                                                                 \
  extern "C" __attribute__((visibility("default"))) void _gobble_##NAME(void* object)               \
  {                                                                                                 \
    if (object == nullptr)                                                                          \
      return;                                                                                       \
    Object_Creator_T<YAJL_Handler>* creator = static_cast<Object_Creator_T<YAJL_Handler>*>(object); \
    creator->fini();                                                                                \
    delete creator;                                                                                 \
  }

#endif
