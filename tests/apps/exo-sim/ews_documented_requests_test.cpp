// Requests written the way Microsoft's EWS reference documents them (not the way our own client
// writes them): GetFolder to enter folders, ConvertId to probe the server's version and convert
// ids, hidden folders through PR_ATTR_HIDDEN, item sizes through item:Size.
#include <gtest/gtest.h>

#include <set>

#include "apps/exo-sim/base64_codec.h"
#include "sim_harness.h"

using namespace exo_sim_test;

namespace
{

const char* const k_alice = "alice.archer@demo.exosim.test";
const char* const k_password = "Passw0rd!";

// Microsoft's GetFolder request sample: no version header, no impersonation, default namespace.
const char* const k_get_inbox_sample =
  "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
  "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"\n"
  "   xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">\n"
  "  <soap:Body>\n"
  "    <GetFolder xmlns=\"http://schemas.microsoft.com/exchange/services/2006/messages\"\n"
  "               xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">\n"
  "      <FolderShape>\n"
  "        <t:BaseShape>Default</t:BaseShape>\n"
  "      </FolderShape>\n"
  "      <FolderIds>\n"
  "        <t:DistinguishedFolderId Id=\"inbox\"/>\n"
  "      </FolderIds>\n"
  "    </GetFolder>\n"
  "  </soap:Body>\n"
  "</soap:Envelope>\n";

// Microsoft's ConvertId request sample (EwsId to OwaId, schema Exchange2010), for `id`.
std::string convert_id_sample(const std::string& id, const std::string& from = "EwsId", const std::string& to = "OwaId",
                              const std::string& mailbox = k_alice)
{
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"\n"
         "               xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\">\n"
         "  <soap:Header>\n"
         "    <t:RequestServerVersion Version=\"Exchange2010\"/>\n"
         "  </soap:Header>\n"
         "  <soap:Body>\n"
         "    <ConvertId xmlns=\"http://schemas.microsoft.com/exchange/services/2006/messages\"\n"
         "               xmlns:t=\"http://schemas.microsoft.com/exchange/services/2006/types\"\n"
         "               DestinationFormat=\"" +
         to +
         "\">\n"
         "      <SourceIds>\n"
         "        <t:AlternateId Format=\"" +
         from + "\" Id=\"" + id +
         "\"\n"
         "                       Mailbox=\"" +
         mailbox +
         "\"/>\n"
         "      </SourceIds>\n"
         "    </ConvertId>\n"
         "  </soap:Body>\n"
         "</soap:Envelope>\n";
}

std::string text_of(const pugi::xml_node& parent, const char* local)
{
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
  {
    std::string name = c.name();
    auto colon = name.find(':');
    if ((colon == std::string::npos ? name : name.substr(colon + 1)) == local)
      return c.text().get();
  }
  return "";
}

class Documented : public ::testing::Test
{
protected:
  static exo_sim::Sim_Options options()
  {
    exo_sim::Sim_Options o = tiny_options();
    o.profile.hidden_folders = true;
    o.tenant.basic_accounts.push_back({k_alice, k_password});
    return o;
  }
  Http_Result as_alice(const std::string& envelope)
  {
    return sim_.ews_raw(envelope,
                        {"Content-Type: text/xml; charset=utf-8",
                         "Authorization: Basic " + exo_sim::base64_encode(std::string(k_alice) + ":" + k_password)});
  }
  Sim_Fixture sim_{options()};
};

}  // namespace

TEST_F(Documented, GetFolderSampleEntersTheInbox)
{
  Http_Result r = as_alice(k_get_inbox_sample);
  ASSERT_EQ(r.status, 200) << r.body;
  Soap_Doc d;
  parse_soap(r.body, d);
  pugi::xml_node version = d.first(T, "ServerVersionInfo");
  ASSERT_TRUE(version);
  EXPECT_STREQ(version.attribute("MajorVersion").value(), "15");
  auto msgs = d.all(M, "GetFolderResponseMessage");
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Success");
  pugi::xml_node inbox = d.first(T, "Folder");
  EXPECT_EQ(text_of(inbox, "DisplayName"), "Inbox");
  for (const char* p : {"TotalCount", "ChildFolderCount", "UnreadCount"})
    EXPECT_FALSE(text_of(inbox, p).empty()) << p;
  std::string id = d.first(T, "FolderId").attribute("Id").value();
  std::string change_key = d.first(T, "FolderId").attribute("ChangeKey").value();

  // The same folder again by its id, IdOnly, with and without its change key; a change key that is
  // not one, and an id of no folder, fail that folder alone.
  auto by_ids = [&](const std::string& ids)
  {
    return soap_envelope("<t:RequestServerVersion Version=\"Exchange2013_SP1\"/>",
                         "<m:GetFolder><m:FolderShape><t:BaseShape>IdOnly</t:BaseShape></m:FolderShape><m:FolderIds>" +
                           ids + "</m:FolderIds></m:GetFolder>");
  };
  std::string unknown = exo_sim::base64_encode(std::string("\x00\x03\x24", 3) + "F:1:999");
  parse_soap(as_alice(by_ids("<t:FolderId Id=\"" + id + "\" ChangeKey=\"" + change_key + "\"/><t:FolderId Id=\"" + id +
                             "\"/><t:FolderId Id=\"" + id + "\" ChangeKey=\"not a change key\"/><t:FolderId Id=\"" +
                             unknown + "\"/>"))
               .body,
             d);
  msgs = d.all(M, "GetFolderResponseMessage");
  ASSERT_EQ(msgs.size(), 4u);
  std::vector<std::string> codes;
  for (const auto& m : msgs)
    codes.push_back(text_of(m, "ResponseCode"));
  EXPECT_EQ(codes, (std::vector<std::string>{"NoError", "NoError", "ErrorInvalidChangeKey", "ErrorFolderNotFound"}));
  EXPECT_STREQ(msgs[3].attribute("ResponseClass").value(), "Error");
  auto folders = d.all(T, "Folder");
  ASSERT_EQ(folders.size(), 2u);
  EXPECT_EQ(text_of(folders[0], "DisplayName"), "") << "IdOnly";
}

TEST_F(Documented, GetFolderWithMailboxAndHiddenFlagForImpersonatedCalls)
{
  // A general client's first calls: the root of the message folders of a named mailbox, with every
  // property and PR_ATTR_HIDDEN, then the whole tree below it.
  std::string hidden =
    "<t:AdditionalProperties><t:ExtendedFieldURI PropertyTag=\"4340\" PropertyType=\"Boolean\"/>"
    "</t:AdditionalProperties>";
  Http_Result r = sim_.ews("<m:GetFolder><m:FolderShape><t:BaseShape>AllProperties</t:BaseShape>" + hidden +
                             "</m:FolderShape><m:FolderIds><t:DistinguishedFolderId Id=\"msgfolderroot\"><t:Mailbox>"
                             "<t:EmailAddress>" +
                             std::string(k_alice) +
                             "</t:EmailAddress></t:Mailbox>"
                             "</t:DistinguishedFolderId></m:FolderIds></m:GetFolder>",
                           k_alice, "", "Exchange2013_SP1");
  ASSERT_EQ(r.status, 200) << r.body;
  Soap_Doc d;
  parse_soap(r.body, d);
  pugi::xml_node root = d.first(T, "Folder");
  EXPECT_EQ(text_of(root, "DisplayName"), "Top of Information Store");
  EXPECT_FALSE(text_of(root, "FolderClass").empty()) << "AllProperties";
  EXPECT_TRUE(d.first(T, "ParentFolderId"));
  EXPECT_EQ(std::string(d.first(T, "Value").text().get()), "false");
  std::string root_id = d.first(T, "FolderId").attribute("Id").value();

  r = sim_.ews("<m:FindFolder Traversal=\"Deep\"><m:FolderShape><t:BaseShape>Default</t:BaseShape>" + hidden +
                 "</m:FolderShape><m:IndexedPageFolderView MaxEntriesReturned=\"1000\" Offset=\"0\" "
                 "BasePoint=\"Beginning\"/><m:ParentFolderIds><t:FolderId Id=\"" +
                 root_id + "\"/></m:ParentFolderIds></m:FindFolder>",
               k_alice);
  parse_soap(r.body, d);
  std::set<std::string> hidden_names, all_names;
  for (const char* el : {"Folder", "CalendarFolder", "ContactsFolder", "TasksFolder"})
    for (const auto& f : d.all(T, el))
    {
      all_names.insert(text_of(f, "DisplayName"));
      std::string value;
      for (pugi::xml_node c = f.first_child(); c; c = c.next_sibling())
        if (std::string(c.name()) == "t:ExtendedProperty")
          value = text_of(c, "Value");
      EXPECT_TRUE(value == "true" || value == "false") << text_of(f, "DisplayName");
      if (value == "true")
        hidden_names.insert(text_of(f, "DisplayName"));
    }
  EXPECT_EQ(hidden_names, (std::set<std::string>{"Conversation Action Settings", "ExternalContacts", "PersonMetadata",
                                                 "Quick Step Settings"}));
  EXPECT_TRUE(all_names.count("Inbox"));
  EXPECT_FALSE(all_names.count("Recoverable Items")) << "outside the message folder root";
  // The recoverable items tree is beside it, under the root.
  r = sim_.ews("<m:GetFolder><m:FolderShape><t:BaseShape>Default</t:BaseShape></m:FolderShape><m:FolderIds>" +
                 distinguished("recoverableitemsdeletions") + "</m:FolderIds></m:GetFolder>",
               k_alice);
  parse_soap(r.body, d);
  EXPECT_EQ(text_of(d.first(T, "Folder"), "DisplayName"), "Deletions");
}

TEST_F(Documented, ConvertIdProbesTheVersionAndConvertsEveryForm)
{
  // A probe with an id that is none: an error message, and the server's version in the header.
  Http_Result r = as_alice(convert_id_sample("AAMkAGZhN2IxYTA0LWNiNzItN="));
  ASSERT_EQ(r.status, 200) << r.body;
  Soap_Doc d;
  parse_soap(r.body, d);
  EXPECT_FALSE(std::string(d.first(T, "ServerVersionInfo").attribute("Version").value()).empty());
  auto msgs = d.all(M, "ConvertIdResponseMessage");
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Error");
  EXPECT_EQ(text_of(msgs[0], "ResponseCode"), "ErrorInvalidIdMalformed");
  EXPECT_EQ(text_of(msgs[0], "MessageText"), "Id is malformed.");

  // A real folder id and item id through every form and back.
  parse_soap(as_alice(k_get_inbox_sample).body, d);
  std::string folder = d.first(T, "FolderId").attribute("Id").value();
  std::string item = all_item_ids(sim_, folder, 5, k_alice).at(0);
  for (const std::string& id : {folder, item})
  {
    for (const char* form : {"EwsId", "EwsLegacyId", "EntryId", "HexEntryId", "StoreId", "OwaId"})
    {
      SCOPED_TRACE(form);
      parse_soap(as_alice(convert_id_sample(id, "EwsId", form)).body, d);
      pugi::xml_node alt = d.first(M, "AlternateId");
      ASSERT_TRUE(alt) << form;
      EXPECT_STREQ(alt.attribute("Format").value(), form);
      EXPECT_STREQ(alt.attribute("Mailbox").value(), k_alice);
      EXPECT_STREQ(alt.attribute("xsi:type").value(), "t:AlternateIdType");
      std::string converted = alt.attribute("Id").value();
      EXPECT_EQ(converted == id, std::string(form) == "EwsId");
      parse_soap(as_alice(convert_id_sample(converted, form, "EwsId")).body, d);
      EXPECT_EQ(std::string(d.first(M, "AlternateId").attribute("Id").value()), id);
    }
  }
  parse_soap(as_alice(convert_id_sample(folder, "HexEntryId", "EwsId")).body, d);
  EXPECT_EQ(std::string(d.first(M, "ResponseCode").text().get()), "ErrorInvalidIdMalformed") << "not hex";
  parse_soap(as_alice(convert_id_sample(folder, "EwsId", "OwaId", "not-an-address")).body, d);
  EXPECT_EQ(std::string(d.first(M, "ResponseCode").text().get()), "ErrorInvalidSmtpAddress");
  EXPECT_EQ(as_alice(convert_id_sample(folder, "EwsId", "NoSuchFormat")).status, 500);
}

TEST_F(Documented, FindItemReportsTheSizeOfWhatExportReturns)
{
  Soap_Doc d;
  parse_soap(as_alice(k_get_inbox_sample).body, d);
  std::string inbox = d.first(T, "FolderId").attribute("Id").value();
  Http_Result r = sim_.ews(
    "<m:FindItem Traversal=\"Shallow\"><m:ItemShape><t:BaseShape>IdOnly</t:BaseShape>"
    "<t:AdditionalProperties><t:FieldURI FieldURI=\"item:Size\"/></t:AdditionalProperties>"
    "</m:ItemShape><m:IndexedPageItemView MaxEntriesReturned=\"4\" Offset=\"0\" "
    "BasePoint=\"Beginning\"/><m:ParentFolderIds>" +
      folder_id(inbox) + "</m:ParentFolderIds></m:FindItem>",
    k_alice);
  parse_soap(r.body, d);
  auto sizes = d.all(T, "Size");
  auto ids = d.all(T, "ItemId");
  ASSERT_EQ(sizes.size(), ids.size());
  ASSERT_FALSE(ids.empty());
  for (size_t k = 0; k < ids.size(); ++k)
  {
    Soap_Doc e;
    parse_soap(sim_.ews(export_items_body({ids[k].attribute("Id").value()}), k_alice).body, e);
    std::string bytes;
    ASSERT_TRUE(exo_sim::base64_decode(e.first(M, "Data").text().get(), bytes));
    EXPECT_EQ(std::to_string(bytes.size()), sizes[k].text().get());
  }
}
