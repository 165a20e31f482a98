#ifndef HOST_JOB_YAJL_PARSER_H
#define HOST_JOB_YAJL_PARSER_H

#include "host/job/yajl_handler.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

// A YAJL handler that builds one object of type T from the document it is fed.
// After a successful parse, `result()` hands out a new reference to that object.
template <typename T>
class YAJL_Parser : public YAJL_Handler
{
public:
  typedef ACE_Refcounted_Auto_Ptr<T, ACE_Thread_Mutex> Result_var;

  virtual Result_var result() = 0;
};

#endif
