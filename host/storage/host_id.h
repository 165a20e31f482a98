#ifndef HOST_STORAGE_HOST_ID_H
#define HOST_STORAGE_HOST_ID_H

#include <mutex>
#include <string>

// This machine's host id as the backup server knows it (a UUID text). The agent
// sets it at start-up from its configuration; until then it is empty.
class Host_ID
{
public:
  static Host_ID& instance();

  void set(const std::string& id);
  // The id; the pointer stays valid until the next `set`.
  const char* c_str() const;
  std::string str() const;

private:
  Host_ID() = default;
  mutable std::mutex lock_;
  std::string id_;
};

#endif
