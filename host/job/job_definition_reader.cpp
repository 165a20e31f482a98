#include "host/job/job_definition_reader.h"

#include "host/base/log.h"
#include "host/base/text_file.h"

#include <nlohmann/json.hpp>

namespace
{
using json = nlohmann::ordered_json;

struct Type_Name
{
  const char* name;
  Job_Definition_Type type;
};

const Type_Name type_names[] = {
  {"none", JOB_DEFINITION_NONE},
  {"backup", JOB_DEFINITION_BACKUP},
  {"restore", JOB_DEFINITION_RESTORE},
  {"standby", JOB_DEFINITION_STANDBY},
};

// Reads one optional member of the expected JSON kind; false when it is present
// with another kind.
bool read_string(const json& doc, const char* key, std::string& out, std::string& error)
{
  auto it = doc.find(key);
  if (it == doc.end())
    return true;
  if (!it->is_string())
  {
    error = std::string("\"") + key + "\" must be a string";
    return false;
  }
  out = it->get<std::string>();
  return true;
}

bool read_bool(const json& doc, const char* key, bool& out, std::string& error)
{
  auto it = doc.find(key);
  if (it == doc.end())
    return true;
  if (!it->is_boolean())
  {
    error = std::string("\"") + key + "\" must be true or false";
    return false;
  }
  out = it->get<bool>();
  return true;
}

bool read_count(const json& doc, const char* key, uint64_t max, uint64_t& out, std::string& error)
{
  auto it = doc.find(key);
  if (it == doc.end())
    return true;
  if (!it->is_number_unsigned() || it->get<uint64_t>() > max)
  {
    error = std::string("\"") + key + "\" must be a whole number from 0 to " + std::to_string(max);
    return false;
  }
  out = it->get<uint64_t>();
  return true;
}

bool read_type(const json& doc, Job_Definition_Type& out, std::string& error)
{
  auto it = doc.find("type");
  if (it == doc.end() || !it->is_string())
  {
    error = "\"type\" is missing; it must be \"backup\" or \"restore\"";
    return false;
  }
  for (const Type_Name& t : type_names)
    if (*it == t.name)
    {
      out = t.type;
      return true;
    }
  error = "unknown job type '" + it->get<std::string>() + "'";
  return false;
}

bool read_schedule(const json& doc, Job_Definition& def, std::string& error)
{
  auto it = doc.find("schedule");
  if (it == doc.end())
    return true;
  Job_Schedule::Type type = Job_Schedule::TYPE_NONE;
  const json type_name = it->is_object() ? it->value("type", json()) : json();
  if (!type_name.is_string() || !Job_Schedule::type_from_name(type_name.get<std::string>(), type))
  {
    error = "\"schedule\" must be an object whose \"type\" is a known schedule type";
    return false;
  }
  def.schedule(Job_Schedule(type));
  return true;
}

bool read_target(const json& doc, Job_Definition& def, std::string& error)
{
  auto it = doc.find("target");
  if (it == doc.end())
    return true;
  if (!it->is_object())
  {
    error = "\"target\" must be an object";
    return false;
  }
  std::string id, device_id;
  if (!read_string(*it, "id", id, error) || !read_string(*it, "device_id", device_id, error))
    return false;
  def.target().id(id);
  def.target().device_id(device_id);
  return true;
}

bool read_rate_limits(const json& doc, Job_Definition& def, std::string& error)
{
  auto it = doc.find("max_rate_limits");
  if (it == doc.end())
    return true;
  if (!it->is_array())
  {
    error = "\"max_rate_limits\" must be an array";
    return false;
  }
  for (const json& limit : *it)
  {
    uint64_t start = 0, end = 86400, rate = 0;
    if (!limit.is_object() || !read_count(limit, "start_time", 86400, start, error) ||
        !read_count(limit, "end_time", 86400, end, error) ||
        !read_count(limit, "max_bytes_per_second", UINT64_MAX, rate, error))
    {
      if (error.empty())
        error = "every rate limit must be an object";
      return false;
    }
    def.max_rate_limits().push_back(
      Rate_Control_Entry{static_cast<uint32_t>(start), static_cast<uint32_t>(end), static_cast<size_t>(rate)});
  }
  return true;
}

bool read_host_fields(const json& doc, Job_Definition& def, std::string& error)
{
  std::string uid, id, name, host_id, module, subtype, pre, post, cond;
  bool ignore_pre = false, ignore_post = false, post_always = false;
  uint64_t retry = 300, resumption = 0;
  if (!read_string(doc, "uid", uid, error) || !read_string(doc, "id", id, error) ||
      !read_string(doc, "name", name, error) || !read_string(doc, "host_id", host_id, error) ||
      !read_string(doc, "module", module, error) || !read_string(doc, "subtype", subtype, error) ||
      !read_string(doc, "precondition", cond, error) || !read_string(doc, "pre_action", pre, error) ||
      !read_string(doc, "post_action", post, error) ||
      !read_bool(doc, "ignore_pre_action_failure", ignore_pre, error) ||
      !read_bool(doc, "ignore_post_action_failure", ignore_post, error) ||
      !read_bool(doc, "run_post_action_always", post_always, error) ||
      !read_count(doc, "max_seconds_retry", 7 * 86400, retry, error) ||
      !read_count(doc, "resumption_buffer_size", UINT32_MAX, resumption, error))
    return false;
  if (id.empty() || uid.empty())
  {
    error = "\"id\" and \"uid\" are required";
    return false;
  }
  def.uid(uid);
  def.id(id);
  def.name(name);
  def.host_id(host_id);
  def.module(module);
  def.subtype(subtype);
  def.precondition(cond);
  def.pre_action(pre);
  def.post_action(post);
  def.ignore_pre_action_failure(ignore_pre);
  def.ignore_post_action_failure(ignore_post);
  def.run_post_action_always(post_always);
  def.max_seconds_retry(static_cast<int>(retry));
  def.resumption_buffer_size(static_cast<size_t>(resumption));
  return read_schedule(doc, def, error) && read_target(doc, def, error) && read_rate_limits(doc, def, error);
}
}  // namespace

Job_Definition_Reader::Job_Definition_Reader(const Creators& creators) : creators_(creators) {}

bool Job_Definition_Reader::read_file(const std::string& path, Job_Definition_var& out)
{
  std::string text;
  if (!read_text_file(path, text))
  {
    error_ = "cannot open " + path;
    return false;
  }
  return read_text(text, out);
}

bool Job_Definition_Reader::read_text(const std::string& text, Job_Definition_var& out)
{
  error_.clear();
  json doc;
  try
  {
    doc = json::parse(text);
  }
  catch (const json::parse_error& e)
  {
    error_ = std::string("malformed job definition: ") + e.what();
    return false;
  }
  if (!doc.is_object())
  {
    error_ = "a job definition must be a JSON object";
    return false;
  }
  Job_Definition_var def(new Job_Definition());
  Job_Definition_Type type = JOB_DEFINITION_NONE;
  if (!read_type(doc, type, error_) || !read_host_fields(doc, *def, error_))
    return false;
  def->type(type);

  Parser_Creator* options_creator = nullptr;
  Parser_Creator* source_creator = nullptr;
  if (type == JOB_DEFINITION_BACKUP)
  {
    options_creator = creators_.backup_options;
    source_creator = creators_.backup_source;
  }
  else if (type == JOB_DEFINITION_RESTORE)
  {
    options_creator = creators_.restore_options;
    source_creator = creators_.restore_source;
  }
  const json options = doc.value("options", json::object());
  const json source = doc.value("source", json());
  if (options_creator != nullptr || source_creator != nullptr)
  {
    Job_Options_var parsed_options;
    Job_Source_var parsed_source;
    if (source.is_null())
    {
      error_ = "the job definition has no \"source\"";
      return false;
    }
    if (!parse_module_object<Job_Options>(options_creator, "options", options.dump(), parsed_options) ||
        !parse_module_object<Job_Source>(source_creator, "source", source.dump(), parsed_source))
      return false;
    def->options(parsed_options);
    def->source(parsed_source);
  }
  out = def;
  return true;
}

template <typename T>
bool Job_Definition_Reader::parse_module_object(Parser_Creator* creator, const char* what, const std::string& text,
                                                typename YAJL_Parser<T>::Result_var& out)
{
  if (creator == nullptr)
  {
    error_ = std::string("the module reads no ") + what + " of this job type";
    return false;
  }
  YAJL_Handler* handler = creator->create();
  if (handler == nullptr)
  {
    error_ = std::string("the module could not make a parser for the ") + what;
    return false;
  }
  YAJL_Parser<T>* parser = dynamic_cast<YAJL_Parser<T>*>(handler);
  bool ok = parser != nullptr && handler->parse(text) == 0;
  if (ok)
    out = parser->result();
  ok = ok && out.get() != nullptr;
  if (!ok)
    error_ = std::string("invalid job ") + what +
             (parser == nullptr ? ": the module's parser is of the wrong kind"
                                : ": " + (handler->error().empty() ? std::string("no result") : handler->error()));
  creator->destroy(handler);
  return ok;
}
