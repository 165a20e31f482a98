#ifndef HOST_JOB_INSTANCE_HANDLER_H
#define HOST_JOB_INSTANCE_HANDLER_H

#include "host/job/instance.h"

#include <map>
#include <memory>
#include <string>

// What a module tells the agent about its protectable instances. A module exports
// one handler (made and destroyed through its factory pair); the agent asks it
// which instances exist, in which state each is, and hands it logon values and
// option changes. Called from one thread at a time.
class Instance_Handler
{
public:
  typedef std::map<std::string, std::shared_ptr<Instance>> instances_type;  // by instance name
  typedef Instance::options_type options_type;

  explicit Instance_Handler(const char* type) : type_(type != nullptr ? type : "") {}
  virtual ~Instance_Handler() {}

  // The module type the handler speaks for ("exchange").
  const std::string& type() const { return type_; }

  // Puts the module's instances into `instances`, each under its name, replacing
  // an entry of the same name. 0 on success, -1 on failure.
  virtual int probe_instances(instances_type& instances) = 0;
  // Sets `state` to the state of instance `name` and returns it.
  virtual std::string& get_state(const char* name, std::string& state) = 0;
  // Logs on to instance `name` as `user` with `password`. 0 on success, -1 on failure.
  virtual int logon(const char* name, const char* user, const char* password) = 0;
  // Applies option changes to instance `name` of `type` with `uuid`. 0 on success,
  // -1 on failure.
  virtual int update_options(const char* type, const char* name, const char* uuid, options_type& options) = 0;

private:
  std::string type_;
};

#endif
