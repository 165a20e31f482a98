#ifndef HOST_JOB_JOB_DEFINITION_READER_H
#define HOST_JOB_JOB_DEFINITION_READER_H

#include "host/job/job_definition.h"
#include "host/job/object_creator.h"
#include "host/job/yajl_handler.h"

#include <string>

// Reads a job definition document (layout in docs/job-definition.md). The
// "options" and "source" objects belong to the module: they are parsed by the
// parsers that the module's creators make, never by the host.
class Job_Definition_Reader
{
public:
  typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

  // The module's parser creators, per job type. A null creator means the module
  // has none: a definition that needs it is refused.
  struct Creators
  {
    Parser_Creator* backup_options = nullptr;
    Parser_Creator* backup_source = nullptr;
    Parser_Creator* restore_options = nullptr;
    Parser_Creator* restore_source = nullptr;
  };

  explicit Job_Definition_Reader(const Creators& creators);

  // True and `out` filled, or false with `error()` saying what is wrong.
  bool read_file(const std::string& path, Job_Definition_var& out);
  bool read_text(const std::string& text, Job_Definition_var& out);

  const std::string& error() const { return error_; }

private:
  template <typename T>
  bool parse_module_object(Parser_Creator* creator, const char* what, const std::string& text,
                           typename YAJL_Parser<T>::Result_var& out);

  Creators creators_;
  std::string error_;
};

#endif
