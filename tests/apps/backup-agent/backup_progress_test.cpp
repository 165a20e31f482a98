// The pieces of `backup-agent backup` that need no services: the progress it
// reads from a job log, and the Graph users pages it follows.

#include "apps/backup-agent/backup_progress.h"
#include "apps/backup-agent/graph_users_lister.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>

TEST(Backup_Progress, FollowsMailboxesThroughTheJobLog)
{
  char path[] = "/tmp/backup-progress-XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  std::ofstream log(path);
  log << "2026-11-23T01:00:00Z INFO a.cpp:1: Mailbox 'old@x' processed.\n" << std::flush;

  Backup_Progress progress(3, path);
  std::string finished;
  progress.poll(0, 0, finished);
  EXPECT_EQ(finished, "") << "an earlier run's line counted";
  log << "2026-11-23T01:00:01Z INFO b.cpp:2: Processing mailbox 'a@x' (1/3).\n"
      << "2026-11-23T01:00:02Z WARNING c.cpp:5: EWS item AAMk+1= of mailbox "
         "'a@x' could not be exported: "
         "ErrorItemCorrupt\n"
      << "2026-11-23T01:00:02Z INFO b.cpp:3: Mailbox 'a@x' processed.\n"
      << "2026-11-23T01:00:03Z INFO b.cpp:4: Failed to process mailbox 'b@x'.\n"
      << "2026-11-23T01:00:04Z INFO b.cpp:3: Mailbox 'c@" << std::flush;
  progress.poll(40, 4 * 1024 * 1024, finished);
  EXPECT_EQ(finished,
            "mailbox 1/3 a@x: backed up (40 items, 4.0 MiB so far)\n"
            "mailbox 2/3 b@x: FAILED (40 items, 4.0 MiB so far)\n");
  EXPECT_EQ(progress.done(), 2u);
  EXPECT_EQ(progress.failed(), 1u);
  EXPECT_EQ(progress.item_errors(), (std::map<std::string, std::string>{{"AAMk+1=", "ErrorItemCorrupt"}}));
  // Two of three mailboxes in 20 s: 10 s left.
  EXPECT_EQ(progress.line(40, 4 * 1024 * 1024, 20),
            "mailboxes 2/3, 40 items, 4.0 MiB, 0.2 MiB/s, elapsed 20s, ETA 10s");
  // The line cut in the middle ends later.
  finished.clear();
  log << "x' processed.\n" << std::flush;
  progress.poll(50, 0, finished);
  EXPECT_EQ(finished, "mailbox 3/3 c@x: backed up (50 items, 0.0 MiB so far)\n");
  EXPECT_EQ(progress.line(50, 0, 3725), "mailboxes 3/3, 50 items, 0.0 MiB, 0.0 MiB/s, elapsed 1h02m05s");
  std::remove(path);

  Backup_Progress no_log(2, "");
  no_log.poll(1, 1, finished);
  EXPECT_EQ(no_log.line(0, 0, 0), "mailboxes 0/2, 0 items, 0.0 MiB, 0.0 MiB/s, elapsed 0s");
}

TEST(Graph_Users_Lister, ReadsPagesAndTheirNextLinks)
{
  std::vector<std::string> mailboxes;
  std::string next, error;
  const auto page = nlohmann::ordered_json::parse(
    R"({"value": [{"userPrincipalName": "a@x", "mail": "a@x"},
                    {"userPrincipalName": "room@x", "mail": null},
                    {"userPrincipalName": "b@corp.x", "mail": "b@x"}],
          "@odata.nextLink": "http://127.0.0.1:5/v1.0/users?$top=2&$skiptoken=ab%3D%3D"})");
  ASSERT_TRUE(Graph_Users_Lister::read_page(page, mailboxes, next, error)) << error;
  EXPECT_EQ(mailboxes, (std::vector<std::string>{"a@x", "b@x"}));
  // Encoded as given: the skip token goes back unchanged.
  EXPECT_EQ(next, "/v1.0/users?$top=2&$skiptoken=ab%3D%3D");

  next.clear();
  ASSERT_TRUE(Graph_Users_Lister::read_page(nlohmann::ordered_json::parse(R"({"value": []})"), mailboxes, next, error));
  EXPECT_EQ(next, "");
  EXPECT_FALSE(
    Graph_Users_Lister::read_page(nlohmann::ordered_json::parse(R"({"error": {}})"), mailboxes, next, error));
  EXPECT_FALSE(
    Graph_Users_Lister::read_page(nlohmann::ordered_json::parse(R"({"value": [1]})"), mailboxes, next, error));
  EXPECT_FALSE(Graph_Users_Lister::read_page(
    nlohmann::ordered_json::parse(R"({"value": [], "@odata.nextLink": "not a url"})"), mailboxes, next, error));
  EXPECT_EQ(mailboxes.size(), 2u);
}
