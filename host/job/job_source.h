#ifndef HOST_JOB_JOB_SOURCE_H
#define HOST_JOB_JOB_SOURCE_H

#include "host/job/yajl_parser.h"

#include <string>
#include <yajl/yajl_gen.h>

// The source object of a job definition: what a job reads. Every source has an
// id (for Exchange Online backups, the tenant registration it uses) and a name;
// modules add their own fields.
class Job_Source
{
public:
  virtual ~Job_Source() {}
  // Writes one JSON object into `g`; 0 on success.
  virtual int generate(yajl_gen g) = 0;

  // Writes the "id" key and, when there is a name, the "name" key into an open map.
  void generate_identity(yajl_gen g) const;

  const std::string& id() const { return id_; }
  void id(const std::string& v) { id_ = v; }
  const std::string& name() const { return name_; }
  void name(const std::string& v) { name_ = v; }

private:
  std::string id_;
  std::string name_;
};

typedef YAJL_Parser<Job_Source>::Result_var Job_Source_var;

#endif
