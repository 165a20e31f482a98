#include "backup/exchange/core/ews/ews_utils.h"

#include "backup/exchange/core/office365/office365_console.h"
#include "host/ews/ews_params.h"
#include "support/exo_sim_process.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <mutex>
#include <string>
#include <vector>
#include <nlohmann/json.hpp>

namespace
{
EWS_Folder folder(const std::string& id, const std::string& name, EWS_Folders subfolders = {}, EWS_Items items = {})
{
  EWS_Folder f;
  f.id = id;
  f.change_key = "ck-" + id;
  f.display_name = name;
  f.items_count = static_cast<int>(items.size());
  f.subfolders_count = static_cast<int>(subfolders.size());
  f.type = EWS_FOLDER_TYPE_CALENDAR;
  f.subfolders = std::move(subfolders);
  f.items = std::move(items);
  return f;
}

EWS_Item item(const std::string& id, const std::string& display_name, const std::string& subject)
{
  EWS_Item i;
  i.id = id;
  i.change_key = "ck-" + id;
  i.display_name = display_name;
  i.subject = subject;
  i.type = EWS_ITEM_TYPE_MESSAGE;
  i.ctime = 1700000000;
  i.mtime = 1700000100;
  return i;
}

std::string dump(const std::vector<nlohmann::ordered_json>& values) { return nlohmann::ordered_json(values).dump(); }

// Inbox (i1) holds Projects (p1, with Alpha a1), a second "Projects" (p2), a
// folder named "projects" (p3) and the items m1, m2; a top-level "Inbox" again
// (i2) comes after it; Calendar (c1) has an item that shares Inbox's item id.
EWS_Folders sample_tree()
{
  EWS_Folders alpha_level = {folder("a1", "Alpha", {}, {item("x1", "", "Deep item")})};
  EWS_Folders inbox_level = {folder("p1", "Projects", alpha_level), folder("p2", "Projects"),
                             folder("p3", "projects", {}, {item("y1", "", "")})};
  return {folder("i1", "Inbox", inbox_level, {item("m1", "", "Hello"), item("m2", "Named", "Ignored")}),
          folder("i2", "Inbox", {folder("q1", "Other")}), folder("c1", "Calendar", {}, {item("m1", "", "Twin")})};
}

// Collects what an EWS client sends to its log callback.
class Recording_Callback : public ACE_Log_Msg_Callback
{
public:
  void log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(lock_);
    text_ += record.msg_data();
  }
  std::string text() const
  {
    std::lock_guard<std::mutex> guard(lock_);
    return text_;
  }

private:
  mutable std::mutex lock_;
  std::string text_;
};
}  // namespace

TEST(EwsUtils, JsonFormsHoldOnlyIdAndNameInOrderAndAreAppended)
{
  const EWS_Folders tree = sample_tree();
  std::vector<nlohmann::ordered_json> rows = {"before"};
  jsonify_ews_folders(tree, rows);
  EXPECT_EQ(dump(rows), R"(["before",{"entry_id":"i1","name":"Inbox"},{"entry_id":"i2","name":"Inbox"},)"
                        R"({"entry_id":"c1","name":"Calendar"}])");

  jsonify_ews_folders(EWS_Folders(), rows);
  jsonify_ews_items(EWS_Items(), rows);
  EXPECT_EQ(rows.size(), 4u);

  // A display name wins over a subject; then the subject; then "(no subject)".
  std::vector<nlohmann::ordered_json> items;
  jsonify_ews_items({item("m2", "Named", "Ignored"), item("m1", "", "Hi"), item("m0", "", ""),
                     item("u", "",
                          "Gr\xC3\xBC\xC3\x9F"
                          "e \"quoted\"")},
                    items);
  EXPECT_EQ(dump(items),
            "[{\"entry_id\":\"m2\",\"subject\":\"Named\"},{\"entry_id\":\"m1\",\"subject\":\"Hi\"},"
            "{\"entry_id\":\"m0\",\"subject\":\"(no subject)\"},"
            "{\"entry_id\":\"u\",\"subject\":\"Gr\xC3\xBC\xC3\x9F"
            "e \\\"quoted\\\"\"}]");

  EXPECT_STREQ(get_item_name(item("d", " ", "Subject")), " ") << "only an empty name falls back";
}

TEST(EwsUtils, FindsFoldersByIdAndNameOnOneLevelAndLogsMisses)
{
  const EWS_Folders tree = sample_tree();
  Log_Capture log;

  const EWS_Folder* found = nullptr;
  ASSERT_TRUE(find_folder_by_id(tree, "c1", found));
  EXPECT_EQ(found, &tree[2]);
  found = nullptr;
  EXPECT_FALSE(find_folder_by_id(tree, "p1", found)) << "no deeper search";
  EXPECT_EQ(found, nullptr);
  EXPECT_FALSE(find_folder_by_id(EWS_Folders(), "", found));
  EXPECT_EQ(log.count("EWS folder not found, id = p1\n"), 1u);
  EXPECT_EQ(log.count("EWS folder not found, id = \n"), 1u);
  EXPECT_EQ(log.priority_of("EWS folder not found, id = p1"), static_cast<unsigned long>(LM_ERROR));

  ASSERT_TRUE(find_folder_by_name(tree, "Inbox", found));
  EXPECT_EQ(found, &tree[0]) << "the first of two equal names";
  ASSERT_TRUE(find_folder_by_name(tree[0].subfolders, "projects", found));
  EXPECT_EQ(found->id, "p3") << "names compare exactly";
  found = nullptr;
  EXPECT_FALSE(find_folder_by_name(tree, "inbox", found));
  EXPECT_FALSE(find_folder_by_name(tree, "Alpha", found));
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(log.count("EWS folder 'inbox' not found\n"), 1u);
  EXPECT_EQ(log.count("EWS folder 'Alpha' not found\n"), 1u);
  EXPECT_EQ(log.lines().size(), 4u);
}

TEST(EwsUtils, FindsPathsAndItemsByDisplayNamesAndLogsTheMissingPath)
{
  const EWS_Folders tree = sample_tree();
  Log_Capture log;

  const EWS_Folder* found = nullptr;
  ASSERT_TRUE(find_folder_path(tree, {"Inbox", "Projects", "Alpha"}, found));
  EXPECT_EQ(found->id, "a1");
  ASSERT_TRUE(find_folder_path(tree, {"Calendar"}, found));
  EXPECT_EQ(found->id, "c1");
  EXPECT_TRUE(log.lines().empty());

  found = nullptr;
  EXPECT_FALSE(find_folder_path(tree, {}, found)) << "an empty path names no folder";
  EXPECT_TRUE(log.lines().empty());
  // The second "Inbox" holds "Other", but a walk follows the first match only.
  EXPECT_FALSE(find_folder_path(tree, {"Inbox", "Other"}, found));
  EXPECT_FALSE(find_folder_path(tree, {"Inbox", "Nope", "Alpha"}, found));
  EXPECT_EQ(found, nullptr);
  EXPECT_EQ(log.count("EWS folder 'Inbox/Other' not found\n"), 1u);
  EXPECT_EQ(log.count("EWS folder 'Inbox/Nope/Alpha' not found\n"), 1u);
  EXPECT_EQ(log.lines().size(), 2u) << "one line per miss, with the whole path";

  const EWS_Item* it = nullptr;
  ASSERT_TRUE(find_item_by_id(tree, {"Inbox"}, "m1", it));
  EXPECT_EQ(it, &tree[0].items[0]);
  ASSERT_TRUE(find_item_by_id(tree, {"Calendar"}, "m1", it));
  EXPECT_EQ(get_item_name(*it), std::string("Twin"));
  ASSERT_TRUE(find_item_by_id(tree, {"Inbox", "Projects", "Alpha"}, "x1", it));
  EXPECT_EQ(it->subject, "Deep item");

  it = nullptr;
  EXPECT_FALSE(find_item_by_id(tree, {"Inbox"}, "x1", it)) << "items are looked up in the named folder only";
  EXPECT_FALSE(find_item_by_id(tree, {}, "m1", it));
  EXPECT_FALSE(find_item_by_id(tree, {"Junk"}, "m1", it));
  EXPECT_EQ(it, nullptr);
  EXPECT_EQ(log.count("EWS item not found, id = x1\n"), 1u);
  EXPECT_EQ(log.count("EWS folder 'Junk' not found\n"), 1u);
  EXPECT_EQ(log.count("EWS item not found, id = m1"), 0u) << "a missing folder is reported as such";
  EXPECT_EQ(log.priority_of("EWS item not found"), static_cast<unsigned long>(LM_ERROR));
  EXPECT_EQ(log.priority_of("EWS folder 'Junk'"), static_cast<unsigned long>(LM_ERROR));
}

TEST(EwsUtils, FindsAnEntryFirstAsAFolderThenAsAnItem)
{
  const EWS_Folders tree = sample_tree();
  const EWS_Folder* f = nullptr;
  const EWS_Item* i = nullptr;
  {
    Log_Capture log;
    // No components: a top-level folder.
    ASSERT_TRUE(find_folder_or_item_by_id(tree, {}, "c1", f, i));
    EXPECT_EQ(f, &tree[2]);
    EXPECT_EQ(i, nullptr);
    // Components: a subfolder of the folder they lead to, else one of its items.
    ASSERT_TRUE(find_folder_or_item_by_id(tree, {"Inbox"}, "p2", f, i));
    EXPECT_EQ(f, &tree[0].subfolders[1]);
    EXPECT_EQ(i, nullptr);
    ASSERT_TRUE(find_folder_or_item_by_id(tree, {"Inbox", "Projects"}, "a1", f, i));
    EXPECT_EQ(f->display_name, "Alpha");
    ASSERT_TRUE(find_folder_or_item_by_id(tree, {"Inbox"}, "m2", f, i));
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(i, &tree[0].items[1]);
    ASSERT_TRUE(find_folder_or_item_by_id(tree, {"Inbox", "projects"}, "y1", f, i));
    EXPECT_STREQ(get_item_name(*i), "(no subject)");
    EXPECT_TRUE(log.lines().empty()) << "a match as an item logs nothing about the folder search";
  }

  struct Miss
  {
    std::vector<std::string> components;
    std::string id;
    std::string line;
  };
  const std::vector<Miss> misses = {
    {{}, "m1", "EWS folder not found, id = m1\n"},  // an item needs its folder's path
    {{}, "p1", "EWS folder not found, id = p1\n"},
    {{"Inbox"}, "a1", "EWS item not found, id = a1\n"},  // neither a child folder nor an item there
    {{"Inbox"}, "c1", "EWS item not found, id = c1\n"},
    {{"Inbox", "Nope"}, "x1", "EWS folder 'Inbox/Nope' not found\n"},
  };
  for (const Miss& m : misses)
  {
    SCOPED_TRACE(m.id);
    Log_Capture log;
    f = &tree[0];
    i = &tree[0].items[0];
    EXPECT_FALSE(find_folder_or_item_by_id(tree, m.components, m.id, f, i));
    EXPECT_EQ(f, nullptr);
    EXPECT_EQ(i, nullptr);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.count(m.line), 1u);
  }
}

TEST(EwsUtils, EwsScopeIsTheEndpointOriginWithDefault)
{
  EXPECT_EQ(ews_default_scope("https://outlook.office365.com/EWS/Exchange.asmx"),
            "https://outlook.office365.com/.default");
  EXPECT_EQ(ews_default_scope("http://127.0.0.1:8080/EWS/Exchange.asmx"), "http://127.0.0.1:8080/.default");
  Log_Capture log;
  EXPECT_EQ(ews_default_scope("outlook.office365.com"), "");
  EXPECT_EQ(log.count("Invalid EWS endpoint 'outlook.office365.com'\n"), 1u);
}

TEST(EwsUtils, CreatesAClientThatListsTheMailboxOnTheSimulator)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  EWS_Params::reset();
  const Office365_Auth_Entry entry = sim.entry();
  const std::string alice = sim.mailbox("alice.archer");

  // Without an authentication the pointer stays as it was.
  EWS_Client_Ptr previous(new EWS_Client());
  EWS_Client_Ptr client = previous;
  {
    Log_Capture log;
    EXPECT_FALSE(create_ews_client("", Secure_String(), nullptr, client, alice.c_str()));
    EXPECT_EQ(client, previous);
    EXPECT_EQ(log.count("Office365 authentication entry is empty.\n"), 1u);
    EXPECT_EQ(log.priority_of("Office365 authentication entry is empty."), static_cast<unsigned long>(LM_ERROR));
  }

  // The EWS scope of the entry's endpoint gets a token that EWS accepts.
  auto auth = std::make_shared<Office365_Auth>(entry, ews_default_scope(entry.ews_endpoint));
  ASSERT_TRUE(create_ews_client("", Secure_String(), auth, client, alice.c_str()));
  ASSERT_TRUE(client);
  EXPECT_NE(client, previous) << "the new client replaces the old one";
  EXPECT_EQ(client->mailbox(), alice);
  EWS_Folders top;
  ASSERT_TRUE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true))
    << client->last_error();
  std::vector<nlohmann::ordered_json> rows;
  jsonify_ews_folders(top, rows);
  const std::string json = dump(rows);
  for (const char* name : {"\"name\":\"Inbox\"", "\"name\":\"Calendar\"", "\"name\":\"Junk Email\""})
    EXPECT_NE(json.find(name), std::string::npos) << json;

  // The scope decides the token's audience: EWS refuses a Graph token.
  EWS_Client_Ptr second;
  auto graph = std::make_shared<Office365_Auth>(entry, ms_graph_default_scope("https://graph.microsoft.com"));
  ASSERT_TRUE(create_ews_client("", Secure_String(), graph, second, alice.c_str()));
  EWS_Folders refused;
  EXPECT_FALSE(second->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, refused, true));

  // The overload with a log callback hands the client's log lines to it.
  auto callback = std::make_shared<Recording_Callback>();
  EWS_Client_Ptr logged;
  ASSERT_TRUE(create_ews_client("", Secure_String(), auth, logged, callback, sim.mailbox("nobody")));
  EWS_Folders none;
  EXPECT_FALSE(logged->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, none, true));
  EXPECT_NE(callback->text().find("nobody@demo.exosim.test"), std::string::npos) << callback->text();

  // A client is made even when its endpoint is bad; its init fails.
  Office365_Auth_Entry broken = entry;
  broken.ews_endpoint = "not a url";
  auto broken_auth = std::make_shared<Office365_Auth>(broken, ews_default_scope(entry.ews_endpoint));
  EWS_Client_Ptr unusable = previous;
  Log_Capture log;
  EXPECT_FALSE(create_ews_client("", Secure_String(), broken_auth, unusable, alice.c_str()));
  EXPECT_TRUE(unusable);
  EXPECT_NE(unusable, previous);
  EXPECT_EQ(log.count("Invalid EWS endpoint 'not a url'\n"), 1u);
  EWS_Params::reset();
}
