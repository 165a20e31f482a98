#ifndef APPS_BACKUP_AGENT_MODULE_HOST_H
#define APPS_BACKUP_AGENT_MODULE_HOST_H

#include "host/job/job_creator.h"
#include "host/job/job_definition_reader.h"
#include "host/base/module_library.h"

#include <memory>
#include <string>

// The Exchange module as the agent holds it: the loaded shared object and the
// objects made through its factory pairs (the job creator and the four parser
// creators). Objects are released through the module's own gobble functions
// before the library is unloaded, and only once the module's job threads have
// ended.
class Module_Host
{
public:
  Module_Host();
  ~Module_Host();

  // Loads the module and makes its objects; false (and `error()`) on failure.
  bool load(const std::string& path);
  const std::string& error() const { return error_; }

  Job_Creator& job_creator() const { return *job_creator_; }
  const Job_Definition_Reader::Creators& parser_creators() const { return creators_; }
  // The loaded library, for the objects made per use (the JSON-RPC handlers and
  // the instance handler), which must be released before this object goes.
  Module_Library& library() { return library_; }

private:
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> make_parser_creator(const std::string& name);

  Module_Library library_;
  std::shared_ptr<Job_Creator> job_creator_;
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> backup_options_;
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> backup_source_;
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> restore_options_;
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> restore_source_;
  Job_Definition_Reader::Creators creators_;
  std::string error_;
};

#endif
