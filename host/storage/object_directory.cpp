#include "host/storage/object_directory.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

#include "host/storage/object_writer.h"
#include "host/storage/storage_name.h"

static const char TEMP_DIR[] = ".~tmp";

Object_Directory::Object_Directory(const std::string& root) : root_(root)
{
  while (root_.size() > 1 && root_.back() == '/')
    root_.pop_back();
}

std::string Object_Directory::path_of(const std::string& name) const { return root_ + "/" + name; }

// mkdir -p for every directory above `path` below `base`; new directories are
// made durable by fsyncing their parents.
static int make_parents(const std::string& base, const std::string& path)
{
  for (size_t pos = base.size() + 1; (pos = path.find('/', pos)) != std::string::npos; ++pos)
  {
    std::string dir = path.substr(0, pos);
    if (::mkdir(dir.c_str(), 0750) == 0)
    {
      std::string parent = dir.substr(0, dir.rfind('/'));
      int fd = ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (fd >= 0)
      {
        ::fsync(fd);
        ::close(fd);
      }
    }
    else if (errno != EEXIST)
      return errno;
  }
  return 0;
}

int Object_Directory::create()
{
  int rc = make_parents("", root_ + "/" + TEMP_DIR + "/");
  return rc;
}

static std::string random_suffix()
{
  static thread_local std::mt19937_64 gen(std::random_device{}());
  static const char digits[] = "0123456789abcdef";
  std::string s;
  uint64_t v = gen();
  for (int i = 0; i < 16; ++i, v >>= 4)
    s += digits[v & 15];
  return s;
}

int Object_Directory::begin_write(const std::string& name, Object_Writer& writer) const
{
  if (!is_valid_storage_name(name))
    return EINVAL;
  std::string final_path = path_of(name);
  int rc = make_parents(root_, final_path);
  if (rc != 0)
    return rc;
  std::string temp_dir = root_ + "/" + TEMP_DIR;
  if (::mkdir(temp_dir.c_str(), 0750) != 0 && errno != EEXIST)
    return errno;
  std::string temp_path = temp_dir + "/" + random_suffix();
  int fd = ::open(temp_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
  if (fd < 0)
    return errno;
  writer.start(fd, temp_path, final_path);
  return 0;
}

int Object_Directory::open_read(const std::string& name, int& fd, uint64_t& size) const
{
  if (!is_valid_storage_name(name))
    return EINVAL;
  fd = ::open(path_of(name).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return errno;
  struct stat st;
  int rc = ::fstat(fd, &st) != 0 ? errno : (S_ISREG(st.st_mode) ? 0 : ENOENT);
  if (rc != 0)
  {
    ::close(fd);
    fd = -1;
    return rc;
  }
  size = static_cast<uint64_t>(st.st_size);
  return 0;
}

int Object_Directory::size(const std::string& name, uint64_t& size) const
{
  if (!is_valid_storage_name(name))
    return EINVAL;
  struct stat st;
  if (::stat(path_of(name).c_str(), &st) != 0)
    return errno;
  if (!S_ISREG(st.st_mode))
    return ENOENT;
  size = static_cast<uint64_t>(st.st_size);
  return 0;
}

static void walk(const std::string& dir, const std::string& rel, std::vector<std::pair<std::string, uint64_t>>& out)
{
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr)
    return;
  while (struct dirent* e = ::readdir(d))
  {
    std::string n = e->d_name;
    if (n == "." || n == ".." || n.compare(0, 2, ".~") == 0)
      continue;
    std::string path = dir + "/" + n;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0)
      continue;
    std::string name = rel.empty() ? n : rel + "/" + n;
    if (S_ISDIR(st.st_mode))
      walk(path, name, out);
    else if (S_ISREG(st.st_mode))
      out.emplace_back(name, static_cast<uint64_t>(st.st_size));
  }
  ::closedir(d);
}

int Object_Directory::list(const std::string& prefix, std::vector<std::pair<std::string, uint64_t>>& objects) const
{
  objects.clear();
  if (prefix.find('\0') != std::string::npos)
    return EINVAL;
  // Walk only the deepest directory the prefix names completely.
  std::string dir_rel = prefix.substr(0, prefix.rfind('/') == std::string::npos ? 0 : prefix.rfind('/'));
  if (!dir_rel.empty() && !is_valid_storage_name(dir_rel))
    return EINVAL;
  struct stat st;
  if (::stat(root_.c_str(), &st) != 0)
    return errno;
  std::vector<std::pair<std::string, uint64_t>> all;
  walk(dir_rel.empty() ? root_ : path_of(dir_rel), dir_rel, all);
  for (auto& o : all)
    if (o.first.compare(0, prefix.size(), prefix) == 0)
      objects.push_back(std::move(o));
  std::sort(objects.begin(), objects.end());
  return 0;
}

int Object_Directory::remove(const std::string& name) const
{
  if (!is_valid_storage_name(name))
    return EINVAL;
  struct stat st;
  std::string path = path_of(name);
  if (::lstat(path.c_str(), &st) != 0)
    return errno;
  if (!S_ISREG(st.st_mode))
    return ENOENT;
  return ::unlink(path.c_str()) == 0 ? 0 : errno;
}

void Object_Directory::remove_stale_temporaries() const
{
  std::string temp_dir = root_ + "/" + TEMP_DIR;
  DIR* d = ::opendir(temp_dir.c_str());
  if (d == nullptr)
    return;
  while (struct dirent* e = ::readdir(d))
  {
    std::string n = e->d_name;
    if (n != "." && n != "..")
      ::unlink((temp_dir + "/" + n).c_str());
  }
  ::closedir(d);
}
