// The parts of `backup-agent serve` that stand alone: the API key file and its
// check, the console's file names, and the bounded worker queue.

#include "apps/backup-agent/agent_api_key.h"
#include "apps/backup-agent/agent_http_server.h"
#include "apps/backup-agent/bounded_task_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace
{
class Scratch_Dir
{
public:
  Scratch_Dir()
  {
    char pattern[] = "/tmp/serve-parts-XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~Scratch_Dir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  const std::string& path() const { return path_; }

private:
  std::string path_;
};

std::string read_file(const std::string& path)
{
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

mode_t mode_of(const std::string& path)
{
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}
}  // namespace

TEST(Agent_API_Key, IsMadeOnceWithOwnerOnlyModeAndReadBackAfterwards)
{
  Scratch_Dir dir;
  const std::string path = Agent_API_Key::file_in(dir.path());
  Agent_API_Key first, second;
  std::string error;
  ASSERT_TRUE(first.load_or_create(path, error)) << error;
  EXPECT_EQ(mode_of(path), 0600u);
  EXPECT_EQ(first.key().size(), 64u);
  EXPECT_EQ(std::string(first.key().c_str()), read_file(path));
  ASSERT_TRUE(second.load_or_create(path, error)) << error;
  EXPECT_EQ(std::string(first.key().c_str()), std::string(second.key().c_str()));

  // Another agent's key is another key.
  Scratch_Dir other_dir;
  Agent_API_Key other;
  ASSERT_TRUE(other.load_or_create(Agent_API_Key::file_in(other_dir.path()), error)) << error;
  EXPECT_NE(std::string(first.key().c_str()), std::string(other.key().c_str()));
}

TEST(Agent_API_Key, RefusesAFileOthersCanReadOrThatHoldsNoKey)
{
  Scratch_Dir dir;
  const std::string path = Agent_API_Key::file_in(dir.path());
  Agent_API_Key key;
  std::string error;
  ASSERT_TRUE(key.load_or_create(path, error)) << error;
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  Agent_API_Key again;
  EXPECT_FALSE(again.load_or_create(path, error));
  EXPECT_NE(error.find("chmod 600"), std::string::npos) << error;
  // The refusal never shows the key.
  EXPECT_EQ(error.find(key.key().c_str()), std::string::npos);

  ASSERT_EQ(::unlink(path.c_str()), 0);
  {
    std::ofstream out(path);
    out << "not-a-key\n";
  }
  ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
  EXPECT_FALSE(again.load_or_create(path, error));
  EXPECT_NE(error.find("64 hex digits"), std::string::npos) << error;
}

TEST(Agent_API_Key, AcceptsOnlyTheBearerOfTheExactKey)
{
  Scratch_Dir dir;
  Agent_API_Key key;
  std::string error;
  ASSERT_TRUE(key.load_or_create(Agent_API_Key::file_in(dir.path()), error)) << error;
  const std::string k = key.key().c_str();
  EXPECT_TRUE(key.accepts("Bearer " + k));
  EXPECT_TRUE(key.accepts("bearer " + k));
  EXPECT_FALSE(key.accepts(k));
  EXPECT_FALSE(key.accepts("Basic " + k));
  EXPECT_FALSE(key.accepts("Bearer "));
  EXPECT_FALSE(key.accepts(""));
  EXPECT_FALSE(key.accepts("Bearer " + k.substr(0, 63)));
  EXPECT_FALSE(key.accepts("Bearer " + k + "0"));
  EXPECT_FALSE(key.accepts("Bearer  " + k));
  std::string last = k;
  last.back() = last.back() == '0' ? '1' : '0';
  EXPECT_FALSE(key.accepts("Bearer " + last));
  std::string first = k;
  first.front() = first.front() == '0' ? '1' : '0';
  EXPECT_FALSE(key.accepts("Bearer " + first));
  // An object that holds no key accepts nothing.
  EXPECT_FALSE(Agent_API_Key().accepts("Bearer "));
}

TEST(Agent_Http_Server, ConsoleFilesArePlainNamesOfTheDirectory)
{
  Scratch_Dir dir;
  std::ofstream(dir.path() + "/index.html") << "<html>console</html>";
  std::ofstream(dir.path() + "/app.js") << "console.log(1);";
  std::ofstream(dir.path() + "/.hidden") << "secret";
  ASSERT_EQ(::mkdir((dir.path() + "/sub").c_str(), 0700), 0);
  std::ofstream(dir.path() + "/sub/inner.html") << "inner";
  std::ofstream(dir.path() + "/../serve-parts-outside.txt") << "outside";

  std::string content, type;
  ASSERT_TRUE(Agent_Http_Server::console_file(dir.path(), "index.html", content, type));
  EXPECT_EQ(content, "<html>console</html>");
  EXPECT_EQ(type, "text/html; charset=utf-8");
  ASSERT_TRUE(Agent_Http_Server::console_file(dir.path(), "app.js", content, type));
  EXPECT_EQ(type, "text/javascript; charset=utf-8");

  for (const char* refused : {"../serve-parts-outside.txt", "sub/inner.html", ".hidden", "..", "sub", "", "missing.js",
                              "a..b", "sub\\inner.html"})
    EXPECT_FALSE(Agent_Http_Server::console_file(dir.path(), refused, content, type)) << refused;
  EXPECT_FALSE(Agent_Http_Server::console_file("", "index.html", content, type));
  ::unlink((dir.path() + "/../serve-parts-outside.txt").c_str());
}

TEST(Bounded_Task_Queue, RunsEveryTaskOnAtMostItsWorkersAndHoldsTheCallerWhenFull)
{
  std::atomic<int> running(0), most(0), done(0);
  std::atomic<bool> release(false);
  {
    Bounded_Task_Queue queue(3, 2);
    auto task = [&]
    {
      const int now = ++running;
      for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);)
      {
      }
      while (!release)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      --running;
      ++done;
    };
    // 3 in work and 2 waiting fit; the sixth enqueue has to wait for a worker.
    for (int i = 0; i < 5; ++i)
      queue.enqueue(task);
    std::atomic<bool> sixth_in(false);
    std::thread producer(
      [&]
      {
        queue.enqueue(task);
        sixth_in = true;
      });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(sixth_in);
    EXPECT_EQ(running, 3);
    release = true;
    producer.join();
    EXPECT_TRUE(sixth_in);
    queue.shutdown();
  }
  EXPECT_EQ(done, 6);
  EXPECT_EQ(most, 3);
}
