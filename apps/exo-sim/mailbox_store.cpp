#include "apps/exo-sim/mailbox_store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "apps/exo-sim/base64_codec.h"
#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

namespace
{

// Real EWS ids start with these bytes ("AAMk..." in base64).
const std::string k_id_prefix("\x00\x03\x24", 3);
const int64_t k_epoch_2024 = 1704067200;  // 2024-01-01T00:00:00Z

const char* const k_people[][2] = {
  {"Admin", "Istrator"}, {"Alice", "Archer"}, {"Bruno", "Brandt"},   {"Chloe", "Chen"},
  {"Dmitri", "Dvorak"},  {"Emma", "Eriksen"}, {"Farid", "Fontaine"}, {"Greta", "Gruber"},
};
const int k_people_count = sizeof k_people / sizeof k_people[0];

// Users whose principal name differs from their primary SMTP address: given name, surname, and
// the surname they had before (used by every third of them).
const char* const k_renamed[][3] = {
  {"Hana", "Hoffmann", ""},  {"Julia", "Berg", "Jansen"},  {"Kenji", "Kato", ""},
  {"Lena", "Lindqvist", ""}, {"Marta", "Novak", "Moreau"}, {"Omar", "Okafor", ""},
};
const int k_renamed_count = sizeof k_renamed / sizeof k_renamed[0];

const char* const k_jobs[] = {"Accountant", "Engineer", "Sales Manager", "Designer", "Lawyer"};
const char* const k_topics[] = {"Projects", "Clients",     "Archive 2023", "Receipts", "Travel",
                                "Team",     "Newsletters", "Contracts",    "Hiring"};
const char* const k_unicode_subjects[] = {
  "R\xC3\xA9union d'\xC3\xA9quipe \xE2\x80\x93 r\xC3\xA9sum\xC3\xA9",
  "\xD0\x9E\xD1\x82\xD1\x87\xD1\x91\xD1\x82 \xD0\xB7\xD0\xB0 \xD0\xBA\xD0\xB2\xD0\xB0\xD1\x80\xD1\x82\xD0\xB0\xD0\xBB",
  "\xE4\xBC\x9A\xE8\xAD\xB0\xE3\x81\xAE\xE8\xAD\xB0\xE4\xBA\x8B\xE9\x8C\xB2",
  "\xCE\xA9\xCE\xBC\xCE\xAD\xCE\xB3\xCE\xB1 \xF0\x9F\x9A\x80 launch",
  "Gr\xC3\xBC\xC3\x9F"
  "e aus K\xC3\xB6ln"};
const char* const k_odd_subjects[] = {"Q3 50% / 50% split", "a/b testing at 100%", "100%/week <&> \"quotes\""};
const char* const k_words[] = {"Budget", "Invoice", "Meeting", "Offer", "Report", "Plan", "Review", "Order"};

template <typename T_, size_t N_>
const T_& pick_T(const T_ (&arr)[N_], uint64_t h)
{
  return arr[h % N_];
}

std::string lower(std::string s)
{
  for (auto& c : s)
    if (c >= 'A' && c <= 'Z')
      c = char(c - 'A' + 'a');
  return s;
}

std::string change_key(uint64_t h)
{
  std::string raw("\x09\x00\x00\x00\x16\x00\x00\x00", 8);
  for (int k = 0; k < 8; ++k)
    raw += char((h >> (8 * k)) & 0xff);
  return base64_encode(raw);
}

std::string guid_from(uint64_t a, uint64_t b)
{
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08x-%04x-%04x-%04x-%012llx", unsigned(a >> 32), unsigned((a >> 16) & 0xffff),
                unsigned(0x4000 | (a & 0x0fff)), unsigned(0x8000 | ((b >> 48) & 0x3fff)),
                static_cast<unsigned long long>(b & 0xffffffffffffULL));
  return buf;
}

std::string item_class_for(const std::string& folder_class, uint64_t h)
{
  unsigned r = unsigned(h % 100);
  if (folder_class == "IPF.Appointment")
    return "IPM.Appointment";
  if (folder_class == "IPF.Contact")
    return r < 85 ? "IPM.Contact" : "IPM.DistList";
  if (folder_class == "IPF.Task")
    return "IPM.Task";
  if (folder_class == "IPF.StickyNote")
    return "IPM.StickyNote";
  if (folder_class == "IPF.Journal")
    return "IPM.Activity";
  if (r < 80)
    return "IPM.Note";
  if (r < 85)
    return "IPM.Schedule.Meeting.Request";
  if (r < 89)
    return "IPM.Schedule.Meeting.Resp.Pos";
  if (r < 92)
    return "IPM.Schedule.Meeting.Canceled";
  if (r < 95)
    return "IPM.Post";
  if (r < 97)
    return "IPM.Schedule.Meeting.Notification.Forward";
  return "IPM.Document";
}

std::string subject_for(uint64_t h, int index)
{
  unsigned r = unsigned(h % 100);
  if (r < 8)
    return "";
  if (r < 23)
    return "Weekly status";
  if (r < 33)
    return pick_T(k_unicode_subjects, h >> 8);
  if (r < 38)
    return pick_T(k_odd_subjects, h >> 8);
  return std::string(pick_T(k_words, h >> 8)) + " " + std::to_string(index + 1) + "-" +
         std::to_string((h >> 20) % 1000);
}

bool write_file(const std::string& path, const std::string& data, mode_t mode, std::string& error)
{
  std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    if (!out)
    {
      error = "cannot write " + tmp;
      return false;
    }
    ::chmod(tmp.c_str(), mode);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    if (!out)
    {
      error = "cannot write " + tmp;
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0)
  {
    error = "cannot rename " + tmp;
    return false;
  }
  return true;
}

bool read_file(const std::string& path, std::string& data)
{
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream s;
  s << in.rdbuf();
  data = s.str();
  return true;
}

bool make_dir(const std::string& path, std::string& error)
{
  if (::mkdir(path.c_str(), 0700) == 0 || errno == EEXIST)
    return true;
  error = "cannot create directory " + path;
  return false;
}

bool parse_ints(const std::string& text, char tag, std::vector<long long>& out)
{
  if (text.size() < 2 || text[0] != tag || text[1] != ':')
    return false;
  out.clear();
  std::string rest = text.substr(2);
  size_t pos = 0;
  while (pos <= rest.size())
  {
    size_t colon = rest.find(':', pos);
    std::string part = rest.substr(pos, colon == std::string::npos ? std::string::npos : colon - pos);
    if (part.empty() || part.size() > 18 || part.find_first_not_of("0123456789") != std::string::npos)
      return false;
    out.push_back(std::stoll(part));
    if (colon == std::string::npos)
      break;
    pos = colon + 1;
  }
  return true;
}

}  // namespace

std::string make_folder_id(int mailbox, int folder)
{
  return base64_encode(k_id_prefix + "F:" + std::to_string(mailbox) + ":" + std::to_string(folder));
}

std::string make_item_id(const std::string& tagged) { return base64_encode(k_id_prefix + tagged); }

bool decode_sim_id(const std::string& id, std::string& tagged)
{
  std::string raw;
  if (id.empty() || !base64_decode(id, raw) || raw.compare(0, k_id_prefix.size(), k_id_prefix) != 0)
    return false;
  tagged = raw.substr(k_id_prefix.size());
  return true;
}

Mailbox_Store::Mailbox_Store(uint64_t seed, const Data_Profile& profile, const Tenant_Config& tenant)
  : seed_(seed), profile_(profile), tenant_(tenant)
{
  mailboxes_.resize(static_cast<size_t>(std::max(0, profile.mailboxes) + std::max(0, profile.renamed_users)));
  for (int m = 0; m < int(mailboxes_.size()); ++m)
    name_user(m, mailboxes_[size_t(m)]);
}

// The profile's regular users sign in with their primary SMTP address. The renamed users after
// them do not, in the three ways real tenants show: a principal name in the tenant's initial
// (onmicrosoft.com) domain, a principal name kept from before a change of surname (the old
// address stays as a proxy), and a principal name in a directory domain that receives no mail.
void Mailbox_Store::name_user(int m, Mailbox& box) const
{
  int renamed = m - std::max(0, profile_.mailboxes);
  std::string local;
  if (renamed < 0 && m < k_people_count)
  {
    box.given_name = k_people[m][0];
    box.surname = k_people[m][1];
    local = m == 0 ? "admin" : lower(box.given_name + "." + box.surname);
  }
  else if (renamed < 0)
  {
    char buf[32];
    std::snprintf(buf, sizeof buf, "user%04d", m);
    box.given_name = "User";
    box.surname = std::to_string(m);
    local = buf;
  }
  else if (renamed < k_renamed_count)
  {
    box.given_name = k_renamed[renamed][0];
    box.surname = k_renamed[renamed][1];
    local = lower(box.given_name + "." + box.surname);
  }
  else
  {
    box.given_name = "Renamed";
    box.surname = std::to_string(renamed);
    local = "renamed" + std::to_string(renamed);
  }
  box.smtp = local + "@" + tenant_.domain;
  box.upn = box.smtp;
  box.proxies = {local + "@" + tenant_.initial_domain};
  if (renamed < 0)
    return;
  switch (renamed % 3)
  {
  case 0:
    box.upn = local + "@" + tenant_.initial_domain;
    break;
  case 1:
  {
    std::string former = renamed < k_renamed_count ? k_renamed[renamed][2] : "former" + std::to_string(renamed);
    box.upn = lower(box.given_name + "." + former) + "@" + tenant_.domain;
    box.proxies.push_back(box.upn);
    break;
  }
  default:
    box.upn = local + "@corp." + tenant_.domain;
    break;
  }
}

int Mailbox_Store::mailbox_count() const { return int(mailboxes_.size()); }

int Mailbox_Store::find_mailbox(const std::string& address, Address_Form form) const
{
  std::string want = lower(address);
  for (size_t m = 0; m < mailboxes_.size(); ++m)
  {
    const Mailbox& box = mailboxes_[m];
    if (form == Address_Form::principal_name)
    {
      if (lower(box.upn) == want)
        return int(m);
      continue;
    }
    if (lower(box.smtp) == want)
      return int(m);
    if (form == Address_Form::any_smtp)
      for (const auto& p : box.proxies)
        if (lower(p) == want)
          return int(m);
  }
  return -1;
}

std::string Mailbox_Store::mailbox_smtp(int mailbox) const { return mailboxes_.at(size_t(mailbox)).smtp; }
std::string Mailbox_Store::mailbox_upn(int mailbox) const { return mailboxes_.at(size_t(mailbox)).upn; }

nlohmann::ordered_json Mailbox_Store::graph_user(int m) const
{
  const Mailbox& box = mailboxes_.at(size_t(m));
  nlohmann::ordered_json u;
  u["businessPhones"] = nlohmann::ordered_json::array();
  if (m % 2 == 1)
    u["businessPhones"].push_back("+1 425 555 0" + std::to_string(100 + m % 900));
  u["displayName"] = box.given_name + " " + box.surname;
  u["givenName"] = box.given_name;
  u["id"] = guid_from(mix64(seed_, uint64_t(m), 1), mix64(seed_, uint64_t(m), 2));
  u["jobTitle"] = pick_T(k_jobs, mix64(seed_, uint64_t(m), 3));
  u["mail"] = box.smtp;
  u["mobilePhone"] = nullptr;
  u["officeLocation"] =
    m % 3 == 0 ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json("Building " + std::to_string(m % 7));
  u["preferredLanguage"] = "en-US";
  u["surname"] = box.surname;
  u["userPrincipalName"] = box.upn;
  // Not one of the properties Graph returns by default; the listing asks for it with $select.
  u["proxyAddresses"] = nlohmann::ordered_json::array({"SMTP:" + box.smtp});
  for (const auto& p : box.proxies)
    u["proxyAddresses"].push_back("smtp:" + p);
  return u;
}

Mailbox_Store::Mailbox& Mailbox_Store::built(int mailbox)
{
  Mailbox& box = mailboxes_.at(size_t(mailbox));
  if (!box.built)
    build(mailbox, box);
  return box;
}

int Mailbox_Store::add_folder(Mailbox& box, int parent, const std::string& name, const std::string& folder_class,
                              const std::string& distinguished, int items)
{
  Folder f;
  f.parent = parent;
  f.name = name;
  f.folder_class = folder_class;
  f.distinguished = distinguished;
  f.generated_items = items;
  box.folders.push_back(f);
  int index = int(box.folders.size()) - 1;
  if (parent >= 0)
    box.folders[size_t(parent)].children.push_back(index);
  return index;
}

void Mailbox_Store::build(int m, Mailbox& box)
{
  box.built = true;
  int mean = std::max(0, profile_.items);
  auto count = [&](int salt)
  { return mean / 2 + int(mix64(seed_, uint64_t(m), 77, uint64_t(salt)) % uint64_t(mean + 1)); };
  int root = add_folder(box, -1, "Root", "", "root", 0);
  int top = add_folder(box, root, "Top of Information Store", "IPF.Note", "msgfolderroot", 0);
  struct Well_Known
  {
    const char* name;
    const char* cls;
    const char* id;
  };
  const Well_Known well_known[] = {{"Inbox", "IPF.Note", "inbox"},
                                   {"Drafts", "IPF.Note", "drafts"},
                                   {"Sent Items", "IPF.Note", "sentitems"},
                                   {"Deleted Items", "IPF.Note", "deleteditems"},
                                   {"Outbox", "IPF.Note", "outbox"},
                                   {"Junk Email", "IPF.Note", "junkemail"},
                                   {"Calendar", "IPF.Appointment", "calendar"},
                                   {"Contacts", "IPF.Contact", "contacts"},
                                   {"Tasks", "IPF.Task", "tasks"},
                                   {"Notes", "IPF.StickyNote", "notes"},
                                   {"Journal", "IPF.Journal", "journal"}};
  int salt = 0;
  int inbox = -1;
  for (const auto& w : well_known)
  {
    int n = std::string(w.id) == "outbox" ? 0 : count(salt++);
    int f = add_folder(box, top, w.name, w.cls, w.id, n);
    if (inbox < 0)
      inbox = f;
  }
  generate_subtree(m, box, inbox, 1);
  add_folder(box, inbox,
             "\xC3\x9Cn\xC3\xAF"
             "c\xC3\xB8"
             "d\xC3\xA9 \xE2\x80\x94 \xE6\x96\x87\xE4\xBB\xB6\xE5\xA4\xB9 \xF0\x9F\x93\x81",
             "IPF.Note", "", count(salt++));
  add_folder(box, inbox, "Sales/Marketing 100% (a%20b)", "IPF.Note", "", count(salt++));
  add_folder(box, inbox, "Empty", "IPF.Note", "", 0);
  add_folder(box, inbox, "Exactly one page", "IPF.Note", "", profile_.page_size);
  int large = add_folder(box, inbox, "Large items", "IPF.Note", "", profile_.large_items);
  box.folders[size_t(large)].large = true;
  // Last, so that the ids of the folders above do not depend on the setting.
  if (profile_.hidden_folders)
    add_system_folders(m, box, root, top);
}

// Folders every Exchange Online mailbox has besides the user's own: hidden configuration and
// contact folders under the message folder root (PR_ATTR_HIDDEN set), and the recoverable items
// tree beside it under the root.
void Mailbox_Store::add_system_folders(int m, Mailbox& box, int root, int top)
{
  int few = 1 + int(mix64(seed_, uint64_t(m), 91) % 4);
  struct System_Folder
  {
    const char* name;
    const char* cls;
    int items;
  };
  const System_Folder hidden[] = {{"Conversation Action Settings", "IPF.Configuration", 0},
                                  {"ExternalContacts", "IPF.Contact", few},
                                  {"PersonMetadata", "IPF.Contact", few + 1},
                                  {"Quick Step Settings", "IPF.Configuration", 0}};
  for (const auto& h : hidden)
  {
    int f = add_folder(box, top, h.name, h.cls, "", h.items);
    box.folders[size_t(f)].hidden = true;
  }
  int recoverable = add_folder(box, root, "Recoverable Items", "", "recoverableitemsroot", 0);
  add_folder(box, recoverable, "Deletions", "", "recoverableitemsdeletions", few);
  add_folder(box, recoverable, "Purges", "", "recoverableitemspurges", 0);
  add_folder(box, recoverable, "Versions", "", "recoverableitemsversions", 0);
}

void Mailbox_Store::generate_subtree(int m, Mailbox& box, int parent, int level)
{
  if (level > profile_.depth)
    return;
  int mean = std::max(0, profile_.items);
  for (int k = 0; k < profile_.fanout; ++k)
  {
    uint64_t h = mix64(seed_, uint64_t(m), uint64_t(parent) * 1000 + uint64_t(k), 5);
    std::string name = pick_T(k_topics, h + uint64_t(k));
    if (level > 1 || k >= 9)
      name += " " + std::to_string(level) + "." + std::to_string(k + 1);
    int n = mean / 2 + int((h >> 16) % uint64_t(mean + 1));
    int f = add_folder(box, parent, name, "IPF.Note", "", n);
    generate_subtree(m, box, f, level + 1);
  }
}

bool Mailbox_Store::resolve_distinguished(int mailbox, const std::string& name, int& folder)
{
  std::lock_guard<std::mutex> lock(mutex_);
  Mailbox& box = built(mailbox);
  for (size_t f = 0; f < box.folders.size(); ++f)
  {
    if (!box.folders[f].distinguished.empty() && box.folders[f].distinguished == name)
    {
      folder = int(f);
      return true;
    }
  }
  return false;
}

Lookup Mailbox_Store::resolve_folder_id(int mailbox, const std::string& folder_id, int& folder)
{
  std::string tagged;
  std::vector<long long> parts;
  if (!decode_sim_id(folder_id, tagged) || !parse_ints(tagged, 'F', parts) || parts.size() != 2)
    return Lookup::malformed;
  std::lock_guard<std::mutex> lock(mutex_);
  if (parts[0] != mailbox)
    return Lookup::not_found;
  Mailbox& box = built(mailbox);
  if (parts[1] < 0 || parts[1] >= (long long)box.folders.size())
    return Lookup::not_found;
  folder = int(parts[1]);
  return Lookup::ok;
}

int Mailbox_Store::folder_item_count(const Folder& f, bool associated, const Mailbox& box) const
{
  int n = associated ? 0 : f.generated_items;
  for (int64_t serial : f.uploads)
    if (box.uploads.at(serial).associated == associated)
      ++n;
  return n;
}

Folder_View Mailbox_Store::folder_view(int m, int folder, const Mailbox& box) const
{
  const Folder& f = box.folders[size_t(folder)];
  Folder_View v;
  v.id = make_folder_id(m, folder);
  v.change_key = change_key(mix64(seed_, uint64_t(m), uint64_t(folder), f.uploads.size() + f.children.size()));
  v.parent_id = f.parent >= 0 ? make_folder_id(m, f.parent) : "";
  v.name = f.name;
  v.folder_class = f.folder_class;
  v.well_known = f.distinguished;
  v.total_count = folder_item_count(f, false, box);
  v.child_count = int(f.children.size());
  v.hidden = f.hidden;
  return v;
}

Folder_View Mailbox_Store::folder(int mailbox, int folder)
{
  std::lock_guard<std::mutex> lock(mutex_);
  return folder_view(mailbox, folder, built(mailbox));
}

std::vector<Folder_View> Mailbox_Store::list_folders(int mailbox, int parent, bool deep)
{
  std::lock_guard<std::mutex> lock(mutex_);
  Mailbox& box = built(mailbox);
  std::vector<Folder_View> out;
  std::vector<int> stack(box.folders[size_t(parent)].children.rbegin(), box.folders[size_t(parent)].children.rend());
  while (!stack.empty())
  {
    int f = stack.back();
    stack.pop_back();
    out.push_back(folder_view(mailbox, f, box));
    if (!deep)
      continue;
    const auto& kids = box.folders[size_t(f)].children;
    stack.insert(stack.end(), kids.rbegin(), kids.rend());
  }
  return out;
}

Item_Meta Mailbox_Store::generated_meta(int m, int folder, int index, const Folder& f) const
{
  uint64_t h = mix64(seed_, uint64_t(m), uint64_t(folder), uint64_t(index));
  Item_Meta meta;
  meta.item_class = item_class_for(f.folder_class, h);
  meta.subject = subject_for(mix64(h, 1), index);
  meta.created = k_epoch_2024 + int64_t(mix64(h, 2) % (730ULL * 86400));
  meta.modified = meta.created + int64_t(mix64(h, 3) % (30ULL * 86400));
  uint64_t s = mix64(h, 4);
  if (f.large)
  {
    // Spread over [large_item_mib, large_item_max_mib]; the first item has the largest size and
    // the second the smallest, so that every folder of large items holds both ends.
    int64_t low = profile_.large_item_mib, high = std::max(low, int64_t(profile_.large_item_max_mib));
    int64_t mib = index == 0 ? high : index == 1 ? low : low + int64_t((s >> 12) % uint64_t(high - low + 1));
    meta.size = mib * 1024 * 1024 + (mib == high && high > low ? 0 : int64_t(s % 4096));
  }
  else if (s % 32 == 0)
    meta.size = 64 * 1024 + int64_t((s >> 8) % (192 * 1024));
  else
    meta.size = 600 + int64_t((s >> 8) % (16 * 1024));
  return meta;
}

Item_View Mailbox_Store::generated_view(int m, int folder, int index, const Folder& f) const
{
  Item_View v;
  v.id = make_item_id("I:" + std::to_string(m) + ":" + std::to_string(folder) + ":" + std::to_string(index));
  v.change_key = change_key(mix64(seed_, hash_text(v.id)));
  v.parent_id = make_folder_id(m, folder);
  v.meta = generated_meta(m, folder, index, f);
  return v;
}

Item_View Mailbox_Store::upload_view(int m, int64_t serial, const Upload& u) const
{
  Item_View v;
  v.id = make_item_id("U:" + std::to_string(m) + ":" + std::to_string(serial));
  v.change_key = change_key(mix64(seed_, hash_text(v.id), uint64_t(u.version)));
  v.parent_id = make_folder_id(m, u.folder);
  v.meta = u.meta;
  return v;
}

std::vector<Item_View> Mailbox_Store::list_items(int mailbox, int folder, bool associated, int offset, int count,
                                                 int& total)
{
  std::lock_guard<std::mutex> lock(mutex_);
  Mailbox& box = built(mailbox);
  const Folder& f = box.folders[size_t(folder)];
  total = folder_item_count(f, associated, box);
  std::vector<Item_View> out;
  int generated = associated ? 0 : f.generated_items;
  int end = std::min(total, offset + std::max(0, count));
  int k = std::max(0, offset);
  for (; k < end && k < generated; ++k)
    out.push_back(generated_view(mailbox, folder, k, f));
  int index = generated;
  for (int64_t serial : f.uploads)
  {
    const Upload& u = box.uploads.at(serial);
    if (u.associated != associated)
      continue;
    if (index >= k && index < end)
      out.push_back(upload_view(mailbox, serial, u));
    ++index;
  }
  return out;
}

Lookup Mailbox_Store::export_item(int mailbox, const std::string& item_id, std::string& blob, Item_View& view,
                                  bool& generated_item)
{
  generated_item = false;
  std::string tagged;
  std::vector<long long> p;
  if (!decode_sim_id(item_id, tagged))
    return Lookup::malformed;
  bool generated = parse_ints(tagged, 'I', p) && p.size() == 3;
  bool uploaded = !generated && parse_ints(tagged, 'U', p) && p.size() == 2;
  if (!generated && !uploaded)
    return Lookup::malformed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (p[0] != mailbox)
      return Lookup::not_found;
    Mailbox& box = built(mailbox);
    if (uploaded)
    {
      auto it = box.uploads.find(p[1]);
      if (it == box.uploads.end())
        return Lookup::not_found;
      view = upload_view(mailbox, it->first, it->second);
      blob = it->second.blob;
      return Lookup::ok;
    }
    if (p[1] < 0 || p[1] >= (long long)box.folders.size())
      return Lookup::not_found;
    const Folder& f = box.folders[size_t(p[1])];
    if (p[2] < 0 || p[2] >= f.generated_items)
      return Lookup::not_found;
    view = generated_view(mailbox, int(p[1]), int(p[2]), f);
  }
  generated_item = true;
  return Lookup::ok;
}

Lookup Mailbox_Store::upload_new(int mailbox, int folder, const std::string& blob, bool associated, Item_View& view)
{
  Upload u;
  u.folder = folder;
  u.associated = associated;
  u.blob = blob;
  if (!Item_Blob::parse(blob, u.meta))
  {
    u.meta = Item_Meta();
    u.meta.size = int64_t(blob.size());
  }
  std::lock_guard<std::mutex> lock(mutex_);
  Mailbox& box = built(mailbox);
  if (folder < 0 || folder >= int(box.folders.size()))
    return Lookup::not_found;
  int64_t serial = box.next_serial++;
  box.folders[size_t(folder)].uploads.push_back(serial);
  view = upload_view(mailbox, serial, u);
  box.uploads.emplace(serial, std::move(u));
  return Lookup::ok;
}

Lookup Mailbox_Store::upload_update(int mailbox, int folder, const std::string& item_id, const std::string& blob,
                                    Item_View& view)
{
  std::string tagged;
  std::vector<long long> p;
  if (!decode_sim_id(item_id, tagged))
    return Lookup::malformed;
  if (!parse_ints(tagged, 'U', p) || p.size() != 2)
  {
    bool generated = parse_ints(tagged, 'I', p) && p.size() == 3;
    return generated ? Lookup::not_found : Lookup::malformed;  // generated items are read-only
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (p[0] != mailbox)
    return Lookup::not_found;
  Mailbox& box = built(mailbox);
  auto it = box.uploads.find(p[1]);
  if (it == box.uploads.end() || it->second.folder != folder)
    return Lookup::not_found;
  Upload& u = it->second;
  u.blob = blob;
  if (!Item_Blob::parse(blob, u.meta))
  {
    u.meta = Item_Meta();
    u.meta.size = int64_t(blob.size());
  }
  ++u.version;
  view = upload_view(mailbox, it->first, u);
  return Lookup::ok;
}

bool Mailbox_Store::create_folder(int mailbox, int parent, const std::string& name, const std::string& folder_class,
                                  Folder_View& view)
{
  std::lock_guard<std::mutex> lock(mutex_);
  Mailbox& box = built(mailbox);
  for (int child : box.folders[size_t(parent)].children)
    if (lower(box.folders[size_t(child)].name) == lower(name))
      return false;
  int f = add_folder(box, parent, name, folder_class, "", 0);
  box.folders[size_t(f)].created = true;
  view = folder_view(mailbox, f, box);
  return true;
}

bool Mailbox_Store::save(const std::string& dir, std::string& error)
{
  std::lock_guard<std::mutex> lock(mutex_);
  if (!make_dir(dir, error) || !make_dir(dir + "/mailboxes", error) || !make_dir(dir + "/blobs", error))
    return false;
  nlohmann::ordered_json state;
  state["format"] = 1;
  state["seed"] = seed_;
  nlohmann::ordered_json& p = state["profile"];
  p["name"] = profile_.name;
  p["mailboxes"] = profile_.mailboxes;
  p["depth"] = profile_.depth;
  p["fanout"] = profile_.fanout;
  p["items"] = profile_.items;
  p["page_size"] = profile_.page_size;
  p["large_items"] = profile_.large_items;
  p["large_item_mib"] = profile_.large_item_mib;
  p["large_item_max_mib"] = profile_.large_item_max_mib;
  p["renamed_users"] = profile_.renamed_users;
  p["hidden_folders"] = profile_.hidden_folders;
  nlohmann::ordered_json& t = state["tenant"];
  t["tenant_id"] = tenant_.tenant_id;
  t["domain"] = tenant_.domain;
  t["initial_domain"] = tenant_.initial_domain;
  t["registrations"] = nlohmann::ordered_json::array();
  for (const auto& r : tenant_.registrations)
    t["registrations"].push_back({{"client_id", r.client_id}, {"client_secret", r.client_secret}});
  t["basic_accounts"] = nlohmann::ordered_json::array();
  for (const auto& a : tenant_.basic_accounts)
    t["basic_accounts"].push_back({{"user", a.user}, {"password", a.password}});
  for (size_t m = 0; m < mailboxes_.size(); ++m)
    if (mailboxes_[m].built && !save_mailbox(dir, int(m), mailboxes_[m], error))
      return false;
  // state.json last: a directory with it is complete.
  return write_file(dir + "/state.json", state.dump(2) + "\n", 0600, error);
}

bool Mailbox_Store::save_mailbox(const std::string& dir, int m, const Mailbox& box, std::string& error) const
{
  nlohmann::ordered_json j;
  j["smtp"] = box.smtp;
  j["next_serial"] = box.next_serial;
  j["folders"] = nlohmann::ordered_json::array();
  for (size_t f = 0; f < box.folders.size(); ++f)
  {
    const Folder& folder = box.folders[f];
    if (!folder.created)
      continue;
    j["folders"].push_back(
      {{"index", f}, {"parent", folder.parent}, {"name", folder.name}, {"folder_class", folder.folder_class}});
  }
  j["items"] = nlohmann::ordered_json::array();
  for (size_t f = 0; f < box.folders.size(); ++f)
  {
    for (int64_t serial : box.folders[f].uploads)
    {
      const Upload& u = box.uploads.at(serial);
      std::string file = std::to_string(m) + "-" + std::to_string(serial) + ".bin";
      if (!write_file(dir + "/blobs/" + file, u.blob, 0600, error))
        return false;
      j["items"].push_back({{"serial", serial},
                            {"folder", u.folder},
                            {"associated", u.associated},
                            {"version", u.version},
                            {"blob", file}});
    }
  }
  return write_file(dir + "/mailboxes/" + std::to_string(m) + ".json", j.dump(2) + "\n", 0600, error);
}

bool Mailbox_Store::load(const std::string& dir, std::string& error)
{
  std::string text;
  if (!read_file(dir + "/state.json", text))
  {
    error = "cannot read " + dir + "/state.json";
    return false;
  }
  auto state = nlohmann::ordered_json::parse(text, nullptr, false);
  try
  {
    if (state.is_discarded() || state.at("format").get<int>() != 1)
      throw std::runtime_error("bad format");
    Data_Profile p;
    const auto& jp = state.at("profile");
    p.name = jp.at("name").get<std::string>();
    p.mailboxes = jp.at("mailboxes").get<int>();
    p.depth = jp.at("depth").get<int>();
    p.fanout = jp.at("fanout").get<int>();
    p.items = jp.at("items").get<int>();
    p.page_size = jp.at("page_size").get<int>();
    p.large_items = jp.at("large_items").get<int>();
    p.large_item_mib = jp.at("large_item_mib").get<int>();
    p.renamed_users = jp.value("renamed_users", 0);
    p.large_item_max_mib = jp.value("large_item_max_mib", 0);
    p.hidden_folders = jp.value("hidden_folders", false);
    Tenant_Config t;
    const auto& jt = state.at("tenant");
    t.tenant_id = jt.at("tenant_id").get<std::string>();
    t.domain = jt.at("domain").get<std::string>();
    t.initial_domain = jt.value("initial_domain", t.initial_domain);
    for (const auto& r : jt.at("registrations"))
      t.registrations.push_back({r.at("client_id").get<std::string>(), r.at("client_secret").get<std::string>()});
    for (const auto& a : jt.at("basic_accounts"))
      t.basic_accounts.push_back({a.at("user").get<std::string>(), a.at("password").get<std::string>()});
    Mailbox_Store fresh(state.at("seed").get<uint64_t>(), p, t);
    std::lock_guard<std::mutex> lock(mutex_);
    seed_ = fresh.seed_;
    profile_ = fresh.profile_;
    tenant_ = fresh.tenant_;
    mailboxes_ = std::move(fresh.mailboxes_);
  }
  catch (const std::exception& e)
  {
    error = dir + "/state.json: " + e.what();
    return false;
  }
  for (int m = 0; m < mailbox_count(); ++m)
    if (!load_mailbox(dir, m, error))
      return false;
  return true;
}

bool Mailbox_Store::load_mailbox(const std::string& dir, int m, std::string& error)
{
  std::string path = dir + "/mailboxes/" + std::to_string(m) + ".json";
  std::string text;
  if (!read_file(path, text))
    return true;  // never touched: nothing to restore
  auto j = nlohmann::ordered_json::parse(text, nullptr, false);
  std::lock_guard<std::mutex> lock(mutex_);
  try
  {
    if (j.is_discarded())
      throw std::runtime_error("not JSON");
    Mailbox& box = built(m);
    for (const auto& jf : j.at("folders"))
    {
      int parent = jf.at("parent").get<int>();
      if (jf.at("index").get<size_t>() != box.folders.size() || parent < 0 || parent >= int(box.folders.size()))
        throw std::runtime_error("folder index out of order");
      int f =
        add_folder(box, parent, jf.at("name").get<std::string>(), jf.at("folder_class").get<std::string>(), "", 0);
      box.folders[size_t(f)].created = true;
    }
    for (const auto& ji : j.at("items"))
    {
      Upload u;
      u.folder = ji.at("folder").get<int>();
      u.associated = ji.at("associated").get<bool>();
      u.version = ji.at("version").get<int>();
      if (u.folder < 0 || u.folder >= int(box.folders.size()))
        throw std::runtime_error("item folder out of range");
      std::string file = ji.at("blob").get<std::string>();
      if (file.find('/') != std::string::npos || !read_file(dir + "/blobs/" + file, u.blob))
        throw std::runtime_error("cannot read blob " + file);
      if (!Item_Blob::parse(u.blob, u.meta))
        u.meta.size = int64_t(u.blob.size());
      int64_t serial = ji.at("serial").get<int64_t>();
      box.folders[size_t(u.folder)].uploads.push_back(serial);
      box.uploads.emplace(serial, std::move(u));
    }
    box.next_serial = j.at("next_serial").get<int64_t>();
  }
  catch (const std::exception& e)
  {
    error = path + ": " + e.what();
    return false;
  }
  return true;
}

}  // namespace exo_sim
