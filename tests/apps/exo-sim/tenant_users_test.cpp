// Users whose principal name is not their primary SMTP address: how Graph lists them and how each
// form of EWS impersonation names them.
#include <gtest/gtest.h>

#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/mailbox_store.h"
#include "sim_harness.h"

using namespace exo_sim_test;
using json = nlohmann::ordered_json;

namespace
{

// tiny: admin and Alice, then one renamed user of each kind.
const char* const k_hana_upn = "hana.hoffmann@exosimdemo.onmicrosoft.com";  // UPN in the initial domain
const char* const k_hana_smtp = "hana.hoffmann@demo.exosim.test";
const char* const k_julia_upn = "julia.jansen@demo.exosim.test";  // former name, kept as a proxy address
const char* const k_julia_smtp = "julia.berg@demo.exosim.test";
const char* const k_kenji_upn = "kenji.kato@corp.demo.exosim.test";  // directory domain without mail
const char* const k_kenji_proxy = "kenji.kato@exosimdemo.onmicrosoft.com";

exo_sim::Sim_Options renamed_options()
{
  exo_sim::Sim_Options o = tiny_options();
  o.profile.renamed_users = 3;
  return o;
}

std::string response_code(const Http_Result& r)
{
  Soap_Doc d;
  parse_soap(r.body, d);
  pugi::xml_node code = d.first(M, "ResponseCode");
  if (code)
    return code.text().get();
  return d.first("http://schemas.microsoft.com/exchange/services/2006/errors", "ResponseCode").text().get();
}

// The mailbox index a GetFolder of the inbox answers from, or -1 when the call failed.
int inbox_owner(Sim_Fixture& sim, const std::string& form, const std::string& address)
{
  Http_Result r = sim.ews_as(form, address,
                             "<m:GetFolder><m:FolderShape><t:BaseShape>IdOnly</t:BaseShape></m:FolderShape>"
                             "<m:FolderIds><t:DistinguishedFolderId Id=\"inbox\"/></m:FolderIds></m:GetFolder>",
                             address);
  Soap_Doc d;
  parse_soap(r.body, d);
  std::string tagged;
  if (r.status != 200 || !exo_sim::decode_sim_id(d.first(T, "FolderId").attribute("Id").value(), tagged))
    return -1;
  return std::stoi(tagged.substr(2, tagged.find(':', 2) - 2));
}

}  // namespace

TEST(ExoSimTenantUsers, GraphListsPrincipalNamesMailAndProxyAddresses)
{
  Sim_Fixture sim(renamed_options());
  auto j = json::parse(sim.graph_users("$select=userPrincipalName,mail,proxyAddresses&$count=true").body);
  EXPECT_EQ(j["@odata.count"], 5);
  std::map<std::string, json> by_upn;
  for (const auto& u : j["value"])
    by_upn[u["userPrincipalName"].get<std::string>()] = u;
  ASSERT_EQ(by_upn.size(), 5u);
  EXPECT_EQ(by_upn.at(k_hana_upn)["mail"], k_hana_smtp);
  EXPECT_EQ(by_upn.at(k_julia_upn)["mail"], k_julia_smtp);
  EXPECT_EQ(by_upn.at(k_kenji_upn)["mail"], "kenji.kato@demo.exosim.test");
  EXPECT_EQ(by_upn.at(k_admin)["mail"], k_admin);
  for (const auto& entry : by_upn)
  {
    const json& proxies = entry.second["proxyAddresses"];
    ASSERT_TRUE(proxies.is_array()) << entry.first;
    int primaries = 0;
    for (const auto& p : proxies)
    {
      std::string text = p.get<std::string>();
      if (text.compare(0, 5, "SMTP:") == 0)
      {
        ++primaries;
        EXPECT_EQ(text.substr(5), entry.second["mail"].get<std::string>());
      }
      else
      {
        EXPECT_EQ(text.compare(0, 5, "smtp:"), 0) << text;
      }
    }
    EXPECT_EQ(primaries, 1) << entry.first;
  }
  EXPECT_NE(by_upn.at(k_julia_upn)["proxyAddresses"].dump().find(std::string("smtp:") + k_julia_upn),
            std::string::npos);
  // proxyAddresses is not a default property.
  j = json::parse(sim.graph_users("").body);
  EXPECT_FALSE(j["value"][0].contains("proxyAddresses"));
}

namespace
{

// The principal names a users $filter selects, or the error code it is refused with.
std::string filtered_users(Sim_Fixture& sim, const std::string& filter, bool advanced = false,
                           const std::string& more = "")
{
  std::string query = "$select=userPrincipalName&$filter=";
  for (char c : filter)
    query += c == ' ' ? std::string("%20") : c == '\'' ? std::string("%27") : std::string(1, c);
  Http_Result r = sim.graph_users(query + (advanced ? "&$count=true" : "") + more, advanced);
  json j = json::parse(r.body);
  if (r.status != 200)
    return std::to_string(r.status) + " " + j["error"]["code"].get<std::string>();
  std::string names;
  for (const auto& u : j["value"])
    names += (names.empty() ? "" : ",") + u["userPrincipalName"].get<std::string>();
  return names;
}

}  // namespace

TEST(ExoSimTenantUsers, GraphFiltersUsersByMailPrincipalNameAndProxyAddress)
{
  Sim_Fixture sim(renamed_options());
  const std::string julia = k_julia_upn, kenji = k_kenji_upn;
  // The forms Microsoft documents as working by default, compared without regard to case.
  EXPECT_EQ(filtered_users(sim, "mail eq 'JULIA.berg@demo.exosim.test'"), julia);
  EXPECT_EQ(filtered_users(sim, "userPrincipalName eq '" + kenji + "'"), kenji);
  EXPECT_EQ(filtered_users(sim, "userPrincipalName eq '" + std::string(k_julia_smtp) + "'"), "");
  EXPECT_EQ(filtered_users(sim, "proxyAddresses/any(x:x eq 'smtp:" + std::string(k_kenji_proxy) + "')"), kenji);
  // A former name kept as a proxy address, found as the transport asks: by mail or proxy address.
  const std::string former = k_julia_upn;
  EXPECT_EQ(filtered_users(sim, "mail eq '" + former + "' or proxyAddresses/any(p:p eq 'smtp:" + former + "')"), julia);
  EXPECT_EQ(
    filtered_users(sim, "mail eq '" + std::string(k_hana_smtp) + "' or mail eq '" + std::string(k_julia_smtp) + "'"),
    std::string(k_hana_upn) + "," + julia);
  EXPECT_EQ(filtered_users(sim, "mail eq 'nobody@demo.exosim.test'"), "");
  // ne needs the advanced query parameters; other operators and properties are refused.
  EXPECT_EQ(filtered_users(sim, "mail ne '" + std::string(k_admin) + "'"), "400 Request_UnsupportedQuery");
  EXPECT_EQ(filtered_users(sim, "mail ne '" + std::string(k_admin) + "'", true).find(k_admin), std::string::npos);
  EXPECT_EQ(filtered_users(sim, "mail gt 'a'", true), "400 Request_UnsupportedQuery");
  EXPECT_EQ(filtered_users(sim, "proxyAddresses eq 'smtp:" + former + "'"), "400 Request_BadRequest");
  EXPECT_EQ(filtered_users(sim, "endsWith(mail,'@demo.exosim.test')", true), "400 Request_BadRequest");
  EXPECT_EQ(filtered_users(sim, "mail eq '" + former + "'", false, "&$orderby=displayName"),
            "400 Request_UnsupportedQuery");
}

TEST(ExoSimTenantUsers, EachImpersonationFormMatchesOnlyItsOwnName)
{
  Sim_Fixture sim(renamed_options());
  struct Case
  {
    const char* form;
    const char* address;
    int mailbox;  // -1: ErrorNonExistentMailbox
  };
  const Case cases[] = {
    {"PrincipalName", k_hana_upn, 2},
    {"PrincipalName", k_julia_upn, 3},
    {"PrincipalName", k_kenji_upn, 4},
    {"PrincipalName", "ALICE.ARCHER@demo.exosim.test", 1},
    {"PrincipalName", k_julia_smtp, -1},
    {"PrincipalName", k_hana_smtp, -1},
    {"PrimarySmtpAddress", k_julia_smtp, 3},
    {"PrimarySmtpAddress", k_julia_upn, -1},
    {"PrimarySmtpAddress", k_hana_upn, -1},
    {"PrimarySmtpAddress", k_kenji_proxy, -1},
    {"SmtpAddress", k_julia_upn, 3},
    {"SmtpAddress", k_kenji_proxy, 4},
    {"SmtpAddress", k_hana_smtp, 2},
    {"SmtpAddress", k_kenji_upn, -1},
    {"SID", "S-1-5-21-1004336348-1177238915-682003330-512", -1},
  };
  for (const auto& c : cases)
  {
    EXPECT_EQ(inbox_owner(sim, c.form, c.address), c.mailbox) << c.form << " " << c.address;
    if (c.mailbox >= 0)
      continue;
    Http_Result r = sim.ews_as(c.form, c.address, find_folder_body(distinguished("inbox")), c.address);
    EXPECT_EQ(r.status, 500);
    EXPECT_EQ(response_code(r), "ErrorNonExistentMailbox") << c.form << " " << c.address;
  }
  // The anchor names the same user by any of its names; another user's address is a wrong anchor.
  long missing = sim.status()["anchor_mailbox_missing"];
  for (const char* anchor : {k_julia_upn, k_julia_smtp, "julia.berg@exosimdemo.onmicrosoft.com"})
    EXPECT_EQ(sim.ews_as("PrincipalName", k_julia_upn, find_folder_body(distinguished("inbox")), anchor).status, 200);
  EXPECT_EQ(sim.status()["anchor_mailbox_missing"].get<long>(), missing);
  EXPECT_EQ(sim.ews_as("PrincipalName", k_julia_upn, find_folder_body(distinguished("inbox")), k_hana_smtp).status,
            200);
  EXPECT_EQ(sim.status()["anchor_mailbox_missing"].get<long>(), missing + 1);
}

TEST(ExoSimTenantUsers, PrincipalNameImpersonationListsExportsCreatesAndUploads)
{
  Sim_Fixture sim(renamed_options());
  for (const char* upn : {k_hana_upn, k_julia_upn, k_kenji_upn})
  {
    SCOPED_TRACE(upn);
    auto call = [&](const std::string& body) { return sim.ews_as("PrincipalName", upn, body, upn); };
    Soap_Doc folders;
    parse_soap(call(find_folder_body(distinguished("msgfolderroot"), "Deep")).body, folders);
    EXPECT_GT(folders.all(T, "Folder").size(), 8u);
    Soap_Doc items;
    parse_soap(call(find_item_body(distinguished("inbox"), 0, 5)).body, items);
    auto ids = items.all(T, "ItemId");
    ASSERT_FALSE(ids.empty());
    Soap_Doc exported;
    parse_soap(call(export_items_body({ids[0].attribute("Id").value()})).body, exported);
    std::string data = exported.first(M, "Data").text().get();
    ASSERT_FALSE(data.empty());
    Soap_Doc created;
    parse_soap(call(create_folder_body(distinguished("inbox"), "Restored")).body, created);
    std::string folder = created.first(T, "FolderId").attribute("Id").value();
    ASSERT_FALSE(folder.empty());
    Soap_Doc uploaded;
    parse_soap(call("<m:UploadItems><m:Items>" + upload_item_xml(folder, data) + "</m:Items></m:UploadItems>").body,
               uploaded);
    ASSERT_EQ(std::string(uploaded.first(M, "ResponseCode").text().get()), "NoError");
    Soap_Doc again;
    parse_soap(call(export_items_body({uploaded.first(M, "ItemId").attribute("Id").value()})).body, again);
    EXPECT_EQ(std::string(again.first(M, "Data").text().get()), data);
  }
}
