#pragma once
// The simulated tenant's mailboxes. Folder trees are generated per mailbox on first use and
// items are never stored: an item's properties and exported blob derive from (seed, mailbox,
// folder, index). What clients create (folders) or upload (items) is kept in memory, shown by
// later listings and exports, and saved/loaded with the state directory.
// Thread-safe: one mutex guards the store; blobs of generated items are built outside it.
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/exo-sim/item_blob.h"
#include "apps/exo-sim/sim_options.h"

namespace exo_sim
{

enum class Lookup
{
  ok,
  malformed,
  not_found
};

// How an address names a mailbox: by the user's principal name only, by the primary SMTP address
// only, or by any of the mailbox's SMTP addresses (primary or proxy).
enum class Address_Form
{
  principal_name,
  primary_smtp,
  any_smtp
};

struct Folder_View
{
  std::string id;
  std::string change_key;
  std::string parent_id;
  std::string name;
  std::string folder_class;
  std::string well_known;  // distinguished folder name (inbox, msgfolderroot, ...), empty for others
  int total_count = 0;
  int child_count = 0;
  bool hidden = false;  // PR_ATTR_HIDDEN
};

struct Item_View
{
  std::string id;
  std::string change_key;
  std::string parent_id;
  Item_Meta meta;
};

class Mailbox_Store
{
public:
  Mailbox_Store(uint64_t seed, const Data_Profile& profile, const Tenant_Config& tenant);

  uint64_t seed() const { return seed_; }
  const Data_Profile& profile() const { return profile_; }
  const Tenant_Config& tenant() const { return tenant_; }

  int mailbox_count() const;
  // Index of the mailbox this address names in that form (case-insensitive), or -1.
  int find_mailbox(const std::string& address, Address_Form form = Address_Form::any_smtp) const;
  // The primary SMTP address and the user principal name of a mailbox's user.
  std::string mailbox_smtp(int mailbox) const;
  std::string mailbox_upn(int mailbox) const;
  // The mailbox's Graph user resource with every property the simulator knows.
  nlohmann::ordered_json graph_user(int mailbox) const;

  Lookup resolve_folder_id(int mailbox, const std::string& folder_id, int& folder);
  // Distinguished folder names (inbox, msgfolderroot, ...); false for one the mailbox lacks.
  bool resolve_distinguished(int mailbox, const std::string& name, int& folder);

  // The folder's own properties.
  Folder_View folder(int mailbox, int folder);
  // The folder's children (deep: all descendants, depth-first in tree order).
  std::vector<Folder_View> list_folders(int mailbox, int parent, bool deep);

  // Items [offset, offset + count) of a folder's normal (or associated) items; `total` is how many
  // there are.
  std::vector<Item_View> list_items(int mailbox, int folder, bool associated, int offset, int count, int& total);

  // The item to export: for an uploaded item its stored blob, for a generated one (`generated`
  // true) only its view, from which the blob is made (Item_Blob) while it is sent.
  Lookup export_item(int mailbox, const std::string& item_id, std::string& blob, Item_View& view, bool& generated);

  Lookup upload_new(int mailbox, int folder, const std::string& blob, bool associated, Item_View& view);
  // Replaces an uploaded item's data; not_found when the item is not an item of `folder`.
  Lookup upload_update(int mailbox, int folder, const std::string& item_id, const std::string& blob, Item_View& view);

  // False when the parent already has a child of that display name (case-insensitive).
  bool create_folder(int mailbox, int parent, const std::string& name, const std::string& folder_class,
                     Folder_View& view);

  // State directory: see docs/exo-sim.md. Both return false with `error` set.
  bool save(const std::string& dir, std::string& error);
  bool load(const std::string& dir, std::string& error);

private:
  struct Folder
  {
    int parent = -1;
    std::string name;
    std::string folder_class;
    std::string distinguished;
    int generated_items = 0;
    bool large = false;    // the generated items are the profile's large items
    bool created = false;  // made by CreateFolder
    bool hidden = false;
    std::vector<int> children;
    std::vector<int64_t> uploads;  // serials, in upload order
  };
  struct Upload
  {
    int folder = 0;
    bool associated = false;
    int version = 0;
    Item_Meta meta;
    std::string blob;
  };
  struct Mailbox
  {
    std::string smtp;                  // primary SMTP address
    std::string upn;                   // user principal name
    std::vector<std::string> proxies;  // the other SMTP addresses
    std::string given_name;
    std::string surname;
    bool built = false;
    std::vector<Folder> folders;
    std::map<int64_t, Upload> uploads;
    int64_t next_serial = 1;
  };

  Mailbox& built(int mailbox);
  void build(int mailbox, Mailbox& box);
  int add_folder(Mailbox& box, int parent, const std::string& name, const std::string& folder_class,
                 const std::string& distinguished, int items);
  void add_system_folders(int mailbox, Mailbox& box, int root, int top);
  void name_user(int mailbox, Mailbox& box) const;
  void generate_subtree(int mailbox, Mailbox& box, int parent, int level);
  int folder_item_count(const Folder& f, bool associated, const Mailbox& box) const;
  Item_Meta generated_meta(int mailbox, int folder, int index, const Folder& f) const;
  Item_View generated_view(int mailbox, int folder, int index, const Folder& f) const;
  Item_View upload_view(int mailbox, int64_t serial, const Upload& u) const;
  Folder_View folder_view(int mailbox, int folder, const Mailbox& box) const;
  bool save_mailbox(const std::string& dir, int mailbox, const Mailbox& box, std::string& error) const;
  bool load_mailbox(const std::string& dir, int mailbox, std::string& error);

  uint64_t seed_;
  Data_Profile profile_;
  Tenant_Config tenant_;
  mutable std::mutex mutex_;
  std::vector<Mailbox> mailboxes_;
};

// Item and folder ids: base64 of a tagged text, "F:<mailbox>:<folder>", "I:<mailbox>:<folder>:<n>"
// (generated item n) or "U:<mailbox>:<serial>" (uploaded item).
std::string make_folder_id(int mailbox, int folder);
std::string make_item_id(const std::string& tagged);
// Decodes an id to its tagged text; false for anything not made by the functions above.
bool decode_sim_id(const std::string& id, std::string& tagged);

}  // namespace exo_sim
