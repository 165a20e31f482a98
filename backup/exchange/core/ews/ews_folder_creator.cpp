#include "backup/exchange/core/ews/ews_folder_creator.h"

#include "host/base/log.h"
#include "host/ews/ews_folder_creation_request.h"

#include <ace/Guard_T.h>

#include <utility>

EWS_Folder_Creator::EWS_Folder_Creator(const EWS_Client_Ptr& ews) : ews_(ews) {}

void EWS_Folder_Creator::split(const std::string& path, std::list<std::string>& names)
{
  names.clear();
  size_t begin = 0;
  while (true)
  {
    const size_t slash = path.find('/', begin);
    names.push_back(path.substr(begin, slash == std::string::npos ? std::string::npos : slash - begin));
    if (slash == std::string::npos)
      break;
    begin = path.find_first_not_of('/', slash);
    if (begin == std::string::npos)
    {
      // Trailing separators: one empty last name.
      names.push_back(std::string());
      break;
    }
  }
}

bool EWS_Folder_Creator::mkdir_p(const std::string& path, std::string& id)
{
  std::list<std::string> names;
  split(path, names);
  return mkdir_p_i(nullptr, names, id);
}

bool EWS_Folder_Creator::mkdir_p(const std::string& parent_id, const std::string& path, std::string& id)
{
  std::list<std::string> names;
  split(path, names);
  return mkdir_p_i(parent_id.c_str(), names, id);
}

bool EWS_Folder_Creator::mkdir_p(const std::string& parent_id, const std::list<std::string>& names, std::string& id)
{
  return mkdir_p_i(parent_id.c_str(), names, id);
}

bool EWS_Folder_Creator::mkdir_p_i(const char* parent_id, const std::list<std::string>& names, std::string& id)
{
  if (names.empty())
    return true;
  if (ews_.get() == nullptr)
  {
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, ews_.get() is NULL:\n%?\n");
    return false;
  }
  // The request's id is the current parent throughout the walk.
  EWS_Folder_Creation_Request request;
  if (parent_id != nullptr && parent_id[0] != '\0')
    request.id = parent_id;
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  for (const std::string& name : names)
  {
    std::string& slot = created_folders_[request.id][name];
    if (!slot.empty())
    {
      request.id = slot;
      continue;
    }
    const std::string parent = std::move(request.id);
    request.id.clear();
    request.display_name = name;
    if (!ews_->create_folder(parent, request, ewstype__DistinguishedFolderIdNameType__msgfolderroot))
    {
      LOG_MSG(LM_ERROR, "Failed to create EWS folder '%s'\n", name.c_str());
      return false;
    }
    slot = request.id;
  }
  id = request.id;
  return true;
}
