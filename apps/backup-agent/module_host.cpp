#include "apps/backup-agent/module_host.h"

#include <ace/Thread_Manager.h>

Module_Host::Module_Host() {}

Module_Host::~Module_Host()
{
  // A job's thread still runs module code for a moment after the job has said it
  // is done; the library must not be closed under it. The job threads are the
  // thread manager's only threads, detached, and wait() waits for those too.
  ACE_Thread_Manager::instance()->wait();
  // Module objects go before the library that holds their code.
  job_creator_.reset();
  backup_options_.reset();
  backup_source_.reset();
  restore_options_.reset();
  restore_source_.reset();
}

std::shared_ptr<Job_Definition_Reader::Parser_Creator> Module_Host::make_parser_creator(const std::string& name)
{
  std::shared_ptr<Job_Definition_Reader::Parser_Creator> creator =
    library_.make<Job_Definition_Reader::Parser_Creator>(name);
  if (creator && creator->init(0, nullptr) != 0)
  {
    error_ = name + " failed to initialise";
    creator.reset();
  }
  return creator;
}

bool Module_Host::load(const std::string& path)
{
  if (!library_.open(path))
  {
    error_ = library_.error();
    return false;
  }
  job_creator_ = library_.make<Job_Creator>("Exchange_Job_Creator");
  backup_options_ = make_parser_creator("Exchange_Backup_Job_Options_Parser_Creator");
  backup_source_ = make_parser_creator("Exchange_Backup_Job_Source_Parser_Creator");
  restore_options_ = make_parser_creator("Exchange_Restore_Job_Options_Parser_Creator");
  restore_source_ = make_parser_creator("Exchange_Restore_Job_Source_Parser_Creator");
  if (!job_creator_ || !backup_options_ || !backup_source_ || !restore_options_ || !restore_source_)
  {
    error_ = "the module at " + path + " is incomplete: " + (error_.empty() ? library_.error() : error_);
    return false;
  }
  creators_.backup_options = backup_options_.get();
  creators_.backup_source = backup_source_.get();
  creators_.restore_options = restore_options_.get();
  creators_.restore_source = restore_source_.get();
  return true;
}
