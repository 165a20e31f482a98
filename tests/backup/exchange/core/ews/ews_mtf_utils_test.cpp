#include "backup/exchange/core/ews/ews_mtf_utils.h"

#include <gtest/gtest.h>

#include <list>
#include <string>

TEST(EwsMtfUtils, EncodesComponentsWithoutSlashesAndDecodesThemBack)
{
  EXPECT_EQ(encode_name("Inbox-2024_v1.0"), "Inbox-2024_v1.0");
  EXPECT_EQ(encode_name("Sent Items"), "Sent%20Items");
  EXPECT_EQ(encode_name("a/b"), "a%2fb");
  EXPECT_EQ(encode_name("\xc3\xbc"), "%c3%bc");
  EXPECT_EQ(encode_name(""), "");
  EXPECT_EQ(encode_name("Re: (1)!*'+"), "Re%3a%20%281%29%21%2a%27%2b");

  const std::string names[] = {"Sent Items", "a/b/c", "100% done", "\xe6\x97\xa5\xe6\x9c\xac", "+plus+", "%41"};
  for (const std::string& name : names)
  {
    EXPECT_EQ(encode_name(name).find('/'), std::string::npos) << name;
    EXPECT_EQ(decode_path(encode_name(name)), name) << name;
  }
  // Text never produced by encode_name decodes as far as it can.
  EXPECT_EQ(decode_path("a%zzb%4"), "a%zzb%4");
  EXPECT_EQ(decode_path("/x%2Fy/%41+"), "/x/y/A+");
}

TEST(EwsMtfUtils, ClassifiesPathsAndFindsTheirMailbox)
{
  const std::string mailbox = "o'brien/x@example.com";
  const std::string root = mailbox_to_path(mailbox);
  EXPECT_EQ(root, "/o%27brien%2fx%40example.com/");
  EXPECT_TRUE(is_mailbox(root));
  EXPECT_TRUE(is_folder(root));

  const std::string folder = join_path(root, encode_name("Inbox")) + "/";
  EXPECT_EQ(folder, root + "Inbox/");
  EXPECT_FALSE(is_mailbox(folder));
  EXPECT_TRUE(is_folder(folder));

  const std::string item = join_path(folder, encode_name("Hello world"));
  EXPECT_EQ(item, root + "Inbox/Hello%20world");
  EXPECT_FALSE(is_mailbox(item));
  EXPECT_FALSE(is_folder(item));
  EXPECT_FALSE(is_mailbox("/name"));
  EXPECT_FALSE(is_folder("/name"));
  EXPECT_EQ(join_path("/a", "b"), "/a/b");

  EXPECT_EQ(get_mailbox(root), mailbox);
  EXPECT_EQ(get_mailbox(folder), mailbox);
  EXPECT_EQ(get_mailbox(item), mailbox);
}

TEST(EwsMtfUtils, PathToListCountsEmptyTokensBeforeSkipping)
{
  std::list<std::string> out = {"stale"};
  EXPECT_TRUE(path_to_list("/box/Inbox/Sub%20one/", out, 1));
  EXPECT_EQ(out, (std::list<std::string>{"Inbox", "Sub one"}));

  EXPECT_TRUE(path_to_list("//box//Inbox/", out, 0));
  EXPECT_EQ(out, (std::list<std::string>{"box", "Inbox"}));

  // Two components: four tokens, so skip 3 builds the list and empties it.
  out = {"stale"};
  EXPECT_TRUE(path_to_list("/a/b/", out, 3));
  EXPECT_TRUE(out.empty());
  // One component: three tokens, cleared at once.
  out = {"stale"};
  EXPECT_TRUE(path_to_list("/a/", out, 3));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(path_to_list("/a/", out, 2));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(path_to_list("/a/b", out, 2));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(path_to_list("/a/b", out, 1));
  EXPECT_EQ(out, (std::list<std::string>{"b"}));
}

TEST(EwsMtfUtils, IndexNamesUseTheirOwnEncoding)
{
  std::string name;
  index_name("O'Brien (old)!", 3, name);
  EXPECT_EQ(name, "O'Brien%20(old)!.3.idx");
  index_name("a/b*c@example.com", 12, name);
  EXPECT_EQ(name, "a%2Fb*c%40example.com.12.idx");
  // The path component of the same mailbox is a different text.
  EXPECT_EQ(encode_name("a/b*c@example.com"), "a%2fb%2ac%40example.com");
  index_name("x", -1, name);
  EXPECT_EQ(name, "x.-1.idx");
}
