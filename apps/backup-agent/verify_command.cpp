#include "apps/backup-agent/verify_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/restore_command.h"
#include "apps/backup-agent/restore_rehearsal.h"
#include "apps/backup-agent/set_access.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <set>
#include <unistd.h>

namespace
{
// The index's items expected at one item path of the set.
struct Expected
{
  std::string folder;  // display names from the mailbox root, joined by "/"
  std::vector<const EWS_Item*> items;
};

void expect(const EWS_Folders& folders, const std::string& path, const std::string& shown,
            const std::set<std::string>& failed, std::map<std::string, Expected>& out)
{
  for (const EWS_Folder& f : folders)
  {
    const std::string here = path + "/" + Set_Access::path_name(f.display_name);
    const std::string here_shown = shown.empty() ? f.display_name : shown + "/" + f.display_name;
    for (const EWS_Item& item : f.items)
    {
      if (failed.count(item.id))
        continue;  // its export failed in the backup: not in the set by design
      Expected& e = out[here + "/" + Set_Access::path_name(Set_Access::item_name(item))];
      e.folder = here_shown;
      e.items.push_back(&item);
    }
    expect(f.subfolders, here, here_shown, failed, out);
  }
}

const char* state_name(Set_Verifier::State state)
{
  return state == Set_Verifier::DAMAGED ? "damaged" : state == Set_Verifier::MISSING ? "missing" : "sound";
}

// A live line on a terminal: MTF bytes read of the set's total.
class Verify_Progress
{
public:
  Verify_Progress(std::ostream& err, uint64_t total) : err_(err), total_(total), shown_(isatty(2) != 0) {}

  void update(uint64_t bytes)
  {
    if (!shown_)
      return;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < std::chrono::milliseconds(250))
      return;
    last_ = now;
    const int percent = total_ == 0 ? 100 : static_cast<int>(std::min<uint64_t>(bytes * 100 / total_, 100));
    err_ << "\rverifying: " << bytes / (1024 * 1024) << " of " << total_ / (1024 * 1024) << " MiB (" << percent
         << "%)   " << std::flush;
    drawn_ = true;
  }
  void end()
  {
    if (drawn_)
      err_ << "\n";
  }

private:
  std::ostream& err_;
  uint64_t total_;
  bool shown_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_;
};
}  // namespace

const char* Verify_Command::usage()
{
  return "usage: backup-agent [--config FILE] verify --set UUID [--mailbox ADDRESS] [--json]\n"
         "                    [--rehearse-into ADDRESS]\n"
         "Reads every item of a backup set back from storage, checks the stream's checksums\n"
         "and each item's SHA-256, and checks that every item the set's mailbox indexes name\n"
         "is in the set. --rehearse-into also restores each mailbox into a new scratch folder\n"
         "of that mailbox, exports the restored items again and compares them with the set.\n"
         "Exit status: 0 all sound, 1 items missing or damaged (or the set unreadable),\n"
         "130 cancelled.\n";
}

bool Verify_Command::parse(const std::vector<std::string>& args, Request& request, std::string& error)
{
  if (!Flag_Reader(request.help)
         .flag("--json", request.json)
         .value("--set", request.set)
         .value("--mailbox", request.mailbox)
         .value("--rehearse-into", request.rehearse_into)
         .read(args, error))
    return false;
  if (!request.help && request.set.empty())
    error = "--set is required";
  return error.empty();
}

void Verify_Command::tally(const std::string& mailbox, const EWS_Folders& tree, const std::vector<std::string>& failed,
                           const MTF_Set_Catalog& catalog, const std::vector<Set_Verifier::Outcome>& outcomes,
                           nlohmann::ordered_json& summary, nlohmann::ordered_json& items)
{
  const std::string root = "/" + Set_Access::path_name(mailbox);
  std::map<std::string, Expected> expected;
  expect(tree, root, "", std::set<std::string>(failed.begin(), failed.end()), expected);

  // The checked catalog files of the mailbox, by path: how many are sound, and
  // the others.
  struct Found
  {
    size_t sound = 0;
    std::vector<const Set_Verifier::Outcome*> bad;
  };
  std::map<std::string, Found> found;
  for (size_t i = 0; i < catalog.entries.size() && i < outcomes.size(); ++i)
  {
    const MTF_Set_Catalog::Entry& e = catalog.entries[i];
    if (e.dir || outcomes[i].state == Set_Verifier::UNCHECKED || e.path.compare(0, root.size() + 1, root + "/") != 0)
      continue;
    Found& f = found[e.path];
    if (outcomes[i].state == Set_Verifier::SOUND)
      ++f.sound;
    else
      f.bad.push_back(&outcomes[i]);
  }

  size_t verified = 0, missing = 0, damaged = 0;
  auto report = [&](const std::string& folder, const std::string& item, const std::string& id,
                    Set_Verifier::State state, const std::string& reason)
  {
    (state == Set_Verifier::DAMAGED ? damaged : missing) += 1;
    items.push_back({{"mailbox", mailbox},
                     {"folder", folder},
                     {"item", item},
                     {"id", id},
                     {"state", state_name(state)},
                     {"reason", reason}});
  };
  for (const auto& e : expected)
  {
    const auto f = found.find(e.first);
    const size_t sound = f == found.end() ? 0 : f->second.sound;
    const size_t held = std::min(sound, e.second.items.size());
    verified += held;
    for (size_t j = held; j < e.second.items.size(); ++j)
    {
      const EWS_Item& item = *e.second.items[j];
      const size_t k = j - held;
      if (f != found.end() && k < f->second.bad.size())
        report(e.second.folder, Set_Access::item_name(item), item.id, f->second.bad[k]->state,
               f->second.bad[k]->reason);
      else
        report(e.second.folder, Set_Access::item_name(item), item.id, Set_Verifier::MISSING,
               "not in the set's catalog");
    }
    if (f != found.end())
      found.erase(f);
  }
  // Files of the set the index does not name, yet missing or damaged: named by
  // their path alone.
  for (const auto& f : found)
  {
    const std::string rest = f.first.substr(root.size() + 1);
    const size_t cut = rest.rfind('/');
    for (const Set_Verifier::Outcome* o : f.second.bad)
      report(cut == std::string::npos ? std::string() : Set_Access::shown_path(rest.substr(0, cut)),
             Set_Access::shown_path(cut == std::string::npos ? rest : rest.substr(cut + 1)), "", o->state, o->reason);
  }
  summary = {{"mailbox", mailbox}, {"verified", verified}, {"missing", missing}, {"damaged", damaged}};
}

int Verify_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  Request request;
  std::string error;
  if (!parse(args, request, error))
  {
    err << "backup-agent verify: " << error << "\n" << usage();
    return 64;
  }
  if (request.help)
  {
    out << usage();
    return 0;
  }
  nlohmann::ordered_json result = {{"set_uuid", request.set}, {"sound", false}};
  auto fail = [&](const std::string& text)
  {
    if (request.json)
    {
      result["error"] = text;
      out << result.dump() << "\n";
    }
    err << "error: " << text << "\n";
    return 1;
  };

  Exchange_Backup_Set record;
  Client_IO_Ex io;
  if (!Set_Access::find(request.set, record, error) || !Set_Access::open(record, io, error))
    return fail(error);
  result["rev"] = record.rev;

  struct Mailbox
  {
    std::string address;
    EWS_Folders tree;
    std::vector<std::string> failed;
  };
  std::vector<Mailbox> mailboxes;
  for (const std::string& name : record.index_files)
  {
    const std::string address = Set_Access::index_mailbox(name);
    if (!request.mailbox.empty() && address != request.mailbox)
      continue;
    mailboxes.emplace_back();
    mailboxes.back().address = address;
    if (!Set_Access::read_index(io, name, mailboxes.back().tree, mailboxes.back().failed, error))
      return fail(error);
  }
  if (!request.mailbox.empty() && mailboxes.empty())
  {
    const bool failed = std::find(record.failed_mailboxes.begin(), record.failed_mailboxes.end(), request.mailbox) !=
                        record.failed_mailboxes.end();
    return fail(failed ? "the backup of " + request.mailbox + " failed; the set holds none of it"
                       : "the set holds no mailbox " + request.mailbox);
  }

  Set_Verifier verifier(io);
  const std::string catalog_name =
    record.catalogs.empty() ? MTF_Set_Catalog::catalog_name(record.rev) : record.catalogs.front();
  if (!verifier.read_catalog(catalog_name, error))
    return fail(error);
  uint64_t total = 0;
  for (const MTF_Set_Catalog::Data_File& f : verifier.catalog().files)
    total += f.size;
  const std::string only = request.mailbox.empty() ? std::string() : "/" + Set_Access::path_name(request.mailbox) + "/";
  Verify_Progress progress(err, total);
  verifier.check([&only](const std::string& path) { return only.empty() || path.compare(0, only.size(), only) == 0; },
                 [&progress](uint64_t bytes) { progress.update(bytes); });
  progress.end();

  nlohmann::ordered_json summaries = nlohmann::ordered_json::array();
  nlohmann::ordered_json items = nlohmann::ordered_json::array();
  size_t bad = 0;
  for (const Mailbox& m : mailboxes)
  {
    nlohmann::ordered_json summary;
    tally(m.address, m.tree, m.failed, verifier.catalog(), verifier.outcomes(), summary, items);
    bad += summary["missing"].get<size_t>() + summary["damaged"].get<size_t>();
    summaries.push_back(summary);
  }
  // Damage is counted against the items it touches; with every mailbox
  // checked, damage that touches none (a data file's end, say) still counts.
  const bool sound = bad == 0 && (!request.mailbox.empty() || verifier.problems().empty());
  result["sound"] = sound;
  result["mailboxes"] = summaries;
  result["items"] = items;
  result["problems"] = verifier.problems();
  result["failed_mailboxes"] = record.failed_mailboxes;

  int status = sound ? 0 : 1;
  if (!request.rehearse_into.empty())
  {
    Restore_Command restore(module_);
    nlohmann::ordered_json rehearsals = nlohmann::ordered_json::array();
    const time_t when = time(nullptr);
    for (const Mailbox& m : mailboxes)
    {
      Restore_Rehearsal rehearsal(restore, record, verifier.catalog(), request.rehearse_into);
      nlohmann::ordered_json report;
      int restore_status = 0;
      if (!rehearsal.run(m.address, m.tree, when, err, report, restore_status))
        status = restore_status == 130 ? 130 : status == 130 ? 130 : 1;
      rehearsals.push_back(report);
      if (restore_status == 130)
        break;
    }
    result["rehearsals"] = rehearsals;
  }

  if (request.json)
  {
    out << result.dump() << "\n";
    return status;
  }
  out << "backup set " << record.uuid << " (revision " << record.rev << ", " << verifier.catalog().files.size()
      << " data files)\n";
  for (const auto& s : summaries)
    out << "mailbox " << s["mailbox"].get<std::string>() << ": verified " << s["verified"] << ", missing "
        << s["missing"] << ", damaged " << s["damaged"] << "\n";
  for (const auto& i : items)
    out << i["state"].get<std::string>() << ": " << i["mailbox"].get<std::string>() << " \""
        << i["folder"].get<std::string>() << "\" \"" << i["item"].get<std::string>() << "\""
        << (i["id"].get<std::string>().empty() ? std::string() : " (id " + i["id"].get<std::string>() + ")") << ": "
        << i["reason"].get<std::string>() << "\n";
  for (const std::string& p : verifier.problems())
    out << "damage: " << p << "\n";
  for (const std::string& m : record.failed_mailboxes)
    out << "not in the set (its backup failed): " << m << "\n";
  if (result.contains("rehearsals"))
    for (const auto& r : result["rehearsals"])
    {
      out << "rehearsal of " << r["mailbox"].get<std::string>() << " into " << r["into"].get<std::string>() << " /"
          << r["folder"].get<std::string>() << ": restore " << r["restore"].get<std::string>() << "; round-trips "
          << r["round_trips"] << ", differ " << r["differ"] << ", not restored " << r["not_restored"] << "\n";
      for (const auto& i : r["items"])
        out << "  " << i["state"].get<std::string>() << ": \"" << i["folder"].get<std::string>() << "\" \""
            << i["item"].get<std::string>() << "\""
            << (i["reason"].get<std::string>().empty() ? std::string() : ": " + i["reason"].get<std::string>()) << "\n";
    }
  out << (status == 0 ? "the set is sound"
          : sound     ? "the set is sound, the rehearsal is not"
                      : "the set is NOT sound")
      << "\n";
  return status;
}
