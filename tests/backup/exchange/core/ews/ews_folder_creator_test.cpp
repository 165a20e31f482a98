#include "backup/exchange/core/ews/ews_folder_creator.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <list>
#include <string>

namespace
{
EWS_Client_Ptr client_of(Fake_Mailboxes& boxes, const std::string& mailbox)
{
  EWS_Client_Ptr client;
  EXPECT_TRUE(boxes.maker()(client));
  EXPECT_TRUE(client->impersonate(mailbox));
  return client;
}
}  // namespace

TEST(EwsFolderCreator, CreatesEachLevelOnceAndKeepsWhatItMadeOnFailure)
{
  Fake_Mailboxes boxes;
  EWS_Folder_Creator creator(client_of(boxes, "bob@x.test"));

  // An empty chain touches neither the id nor the server.
  std::string id = "unchanged";
  EXPECT_TRUE(creator.mkdir_p("parent", std::list<std::string>(), id));
  EXPECT_EQ(id, "unchanged");
  EXPECT_TRUE(boxes.created.empty());

  // Level by level under the top of information store; runs of "/" count once.
  ASSERT_TRUE(creator.mkdir_p("Restored//2024", id));
  ASSERT_EQ(boxes.created.size(), 2u);
  EXPECT_EQ(boxes.created[0].parent_id, "");
  EXPECT_EQ(boxes.created[0].name, "Restored");
  EXPECT_EQ(boxes.created[1].parent_id, boxes.created[0].id);
  EXPECT_EQ(boxes.created[1].name, "2024");
  EXPECT_EQ(id, boxes.created[1].id);
  EXPECT_EQ(boxes.created[1].mailbox, "bob@x.test");

  // The same chain again is found in what this run made.
  std::string again;
  ASSERT_TRUE(creator.mkdir_p("Restored/2024", again));
  EXPECT_EQ(again, id);
  EXPECT_EQ(boxes.created.size(), 2u);

  // A cached first level and a new second: one call, under the cached id.
  ASSERT_TRUE(creator.mkdir_p("Restored/2025", again));
  ASSERT_EQ(boxes.created.size(), 3u);
  EXPECT_EQ(boxes.created[2].parent_id, boxes.created[0].id);

  // Under a given parent, and the list form is keyed by that parent.
  ASSERT_TRUE(creator.mkdir_p(id, std::list<std::string>{"Inbox", "Inbox"}, again));
  ASSERT_EQ(boxes.created.size(), 5u);
  EXPECT_EQ(boxes.created[3].parent_id, id);
  EXPECT_EQ(boxes.created[4].parent_id, boxes.created[3].id);

  // The third of four levels fails: the first two stay recorded.
  boxes.refused_folder_names.insert("c");
  {
    Log_Capture log;
    EXPECT_FALSE(creator.mkdir_p("a/b/c/d", again));
    EXPECT_EQ(log.count("Failed to create EWS folder 'c'"), 1u);
  }
  EXPECT_EQ(boxes.created.size(), 7u);
  boxes.refused_folder_names.clear();
  ASSERT_TRUE(creator.mkdir_p("a/b/c", again));
  ASSERT_EQ(boxes.created.size(), 8u);
  EXPECT_EQ(boxes.created[7].parent_id, boxes.created[6].id);

  // A new run does not know the folders of the last one.
  EWS_Folder_Creator next(client_of(boxes, "bob@x.test"));
  ASSERT_TRUE(next.mkdir_p("Restored/2024", again));
  EXPECT_EQ(boxes.created.size(), 10u);
  EXPECT_NE(again, id);

  // Without a client nothing is attempted.
  EWS_Folder_Creator none{EWS_Client_Ptr()};
  {
    Log_Capture log;
    EXPECT_FALSE(none.mkdir_p("x", again));
    EXPECT_EQ(log.count("ews_.get() is NULL"), 1u);
  }
}
