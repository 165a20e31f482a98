#include "host/ews/ews_folder.h"
#include "host/ews/ews_folders_index.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <pugixml.hpp>

namespace
{
EWS_Folders sample_tree()
{
  EWS_Item mail;
  mail.id = "I1";
  mail.change_key = "K1";
  mail.subject = "Hello \"world\" \xC3\xA9";
  mail.type = EWS_ITEM_TYPE_MESSAGE;
  mail.ctime = 1700000000;
  mail.mtime = 1700000100;
  mail.data = EWS_b64_Data::copy_of(reinterpret_cast<const unsigned char*>("blob"), 4);
  EWS_Item contact;
  contact.id = "I2";
  contact.display_name = "Ann";
  contact.type = EWS_ITEM_TYPE_CONTACT;

  EWS_Folder child;
  child.id = "F2";
  child.change_key = "C2";
  child.display_name = "a/b %";
  child.items_count = 1;
  child.items = {mail, contact};
  EWS_Folder top;
  top.id = "F1";
  top.display_name = "Inbox";
  top.subfolders_count = 1;
  top.subfolders = {child};
  EWS_Folder calendar;
  calendar.id = "F3";
  calendar.display_name = "Calendar";
  calendar.type = EWS_FOLDER_TYPE_CALENDAR;
  return {top, calendar};
}
}  // namespace

TEST(EwsFoldersIndex, RoundTripsTheWholeTreeAndFailedItems)
{
  std::string text;
  ASSERT_TRUE(dump_ews_folders(sample_tree(), text, {"X1", "X2"}));
  EXPECT_EQ(text.find("blob"), std::string::npos);
  EXPECT_NE(text.find("\"format_version\":2"), std::string::npos);
  EXPECT_NE(text.find("\"transport\":\"ews\""), std::string::npos);

  EWS_Folders loaded;
  std::vector<std::string> failed;
  std::string error;
  ASSERT_TRUE(load_ews_folders(text, loaded, failed, error)) << error;
  EXPECT_EQ(failed, (std::vector<std::string>{"X1", "X2"}));
  ASSERT_EQ(loaded.size(), 2u);
  EXPECT_EQ(loaded[1].type, EWS_FOLDER_TYPE_CALENDAR);
  ASSERT_EQ(loaded[0].subfolders.size(), 1u);
  const EWS_Folder& child = loaded[0].subfolders[0];
  EXPECT_EQ(child.display_name, "a/b %");
  EXPECT_EQ(child.change_key, "C2");
  EXPECT_EQ(child.items_count, 1);
  ASSERT_EQ(child.items.size(), 2u);
  EXPECT_EQ(child.items[0].subject, "Hello \"world\" \xC3\xA9");
  EXPECT_EQ(child.items[0].type, EWS_ITEM_TYPE_MESSAGE);
  EXPECT_EQ(child.items[0].ctime, 1700000000);
  EXPECT_EQ(child.items[0].mtime, 1700000100);
  EXPECT_FALSE(child.items[0].data.ptr);
  EXPECT_EQ(child.items[1].display_name, "Ann");

  std::string again;
  dump_ews_folders(loaded, again, failed);
  EXPECT_EQ(again, text);
}

TEST(EwsFoldersIndex, RejectsDamagedTruncatedAndForeignTexts)
{
  std::string text;
  dump_ews_folders(sample_tree(), text, {});
  EWS_Folders loaded;
  std::vector<std::string> failed;
  std::string error;
  for (size_t cut : {size_t(0), size_t(1), text.size() / 2, text.size() - 1})
  {
    EXPECT_FALSE(load_ews_folders(text.substr(0, cut), loaded, failed, error)) << cut;
    EXPECT_TRUE(loaded.empty());
  }
  const std::pair<const char*, const char*> damaged[] = {
    {"{\"format_version\":3,\"folders\":[],\"failed_items\":[]}", "unknown format version 3"},
    {"{\"format_version\":2,\"folders\":[],\"failed_items\":[]}", "transport is missing"},
    {"{\"format_version\":2,\"transport\":\"imap\",\"folders\":[],\"failed_items\":[]}", "transport is missing"},
    {"{\"folders\":[],\"failed_items\":[]}", "format_version"},
    {"{\"format_version\":1,\"failed_items\":[]}", "index.folders"},
    {"{\"format_version\":1,\"folders\":[],\"failed_items\":[1]}", "failed_items[0]"},
    {"{\"format_version\":1,\"folders\":[{\"entry_id\":\"F\",\"change_key\":\"\",\"name\":\"N\",\"items_count\":0,"
     "\"subfolders_count\":0,\"type\":9,\"subfolders\":[],\"items\":[]}],\"failed_items\":[]}",
     "folders[0].type is out of range"},
    {"{\"format_version\":1,\"folders\":[{\"entry_id\":\"F\",\"change_key\":\"\",\"name\":\"N\",\"items_count\":0,"
     "\"subfolders_count\":0,\"type\":1,\"subfolders\":[],\"items\":[{\"entry_id\":\"I\"}]}],\"failed_items\":[]}",
     "folders[0].items[0].change_key"},
  };
  for (const auto& d : damaged)
  {
    EXPECT_FALSE(load_ews_folders(d.first, loaded, failed, error)) << d.first;
    EXPECT_NE(error.find(d.second), std::string::npos) << error;
  }

  std::string deep = "{\"format_version\":1,\"failed_items\":[],\"folders\":[";
  for (int i = 0; i < 400; ++i)
    deep +=
      "{\"entry_id\":\"F\",\"change_key\":\"\",\"name\":\"N\",\"items_count\":0,\"subfolders_count\":0,"
      "\"type\":1,\"items\":[],\"subfolders\":[";
  for (int i = 0; i < 400; ++i)
    deep += "]}";
  deep += "]}";
  EXPECT_FALSE(load_ews_folders(deep, loaded, failed, error));
  EXPECT_NE(error.find("nested too deeply"), std::string::npos);

  Log_Capture capture;
  EXPECT_FALSE(load_ews_folders("{", loaded));
  EXPECT_TRUE(capture.contains("Invalid mailbox index"));
  EXPECT_TRUE(load_ews_folders(text, loaded));
  EXPECT_EQ(loaded.size(), 2u);
}

TEST(EwsFolder, CountsSubfoldersOnlyWhenTheAnswerGivesACount)
{
  const auto parse = [](const std::string& counts)
  {
    pugi::xml_document doc;
    const std::string xml =
      "<t:Folder xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">"
      "<t:FolderId Id=\"F\" ChangeKey=\"K\"/><t:DisplayName>Inbox</t:DisplayName>" +
      counts + "</t:Folder>";
    EXPECT_TRUE(doc.load_string(xml.c_str()));
    return EWS_Folder(doc.first_child());
  };
  const EWS_Folder leaf = parse("<t:TotalCount>3</t:TotalCount><t:ChildFolderCount>0</t:ChildFolderCount>");
  EXPECT_TRUE(leaf.subfolders_counted);
  EXPECT_EQ(leaf.subfolders_count, 0);
  EXPECT_EQ(leaf.items_count, 3);
  const EWS_Folder parent = parse("<t:ChildFolderCount>12</t:ChildFolderCount>");
  EXPECT_TRUE(parent.subfolders_counted);
  EXPECT_EQ(parent.subfolders_count, 12);
  // Without a readable count, 0 must not be taken for "no subfolders".
  for (const char* unknown : {"", "<t:ChildFolderCount/>", "<t:ChildFolderCount>-1</t:ChildFolderCount>",
                              "<t:ChildFolderCount>two</t:ChildFolderCount>"})
  {
    const EWS_Folder f = parse(unknown);
    EXPECT_FALSE(f.subfolders_counted) << unknown;
    EXPECT_EQ(f.id, "F");
  }
}

TEST(EwsFoldersIndex, NamesTheTransportThatWroteTheItems)
{
  std::string text;
  ASSERT_TRUE(dump_ews_folders(sample_tree(), text, {}, "graph"));
  EWS_Folders loaded;
  std::vector<std::string> failed;
  std::string transport, error;
  ASSERT_TRUE(load_ews_folders(text, loaded, failed, transport, error)) << error;
  EXPECT_EQ(transport, "graph");
  EXPECT_EQ(loaded.size(), 2u);
  // An index written before transports were named was written over EWS.
  ASSERT_TRUE(
    load_ews_folders("{\"format_version\":1,\"folders\":[],\"failed_items\":[]}", loaded, failed, transport, error))
    << error;
  EXPECT_EQ(transport, "ews");
}
