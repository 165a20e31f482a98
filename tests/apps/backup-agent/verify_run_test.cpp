// `backup-agent verify` end to end: backupd, exo-sim and the real agent (loading
// the real module) on loopback. A set is backed up by the agent, then verified
// as it is, and again after each of three faults put into a copy of its pool
// files: an item's bytes altered, an item left out of a data file, a data file
// gone. Each fault must be found and the items it touches named; the set's
// restore is rehearsed into another mailbox, every item round-tripping.

#include "apps/backup-agent/agent_run_fixture.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "host/mtf/mtf_reader.h"
#include "host/mtf/mtf_set_catalog.h"
#include "host/mtf/mtf_writer.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace
{
std::string read_file(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_file(const std::string& path, const std::string& bytes)
{
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// A catalog path "/mailbox/a/b/item" as the agent names it: folder "a/b" and
// item, decoded.
std::pair<std::string, std::string> folder_and_item(const std::string& path)
{
  const size_t second = path.find('/', 1);
  const size_t last = path.rfind('/');
  std::string folder;
  for (size_t begin = second + 1; begin < last;)
  {
    const size_t end = path.find('/', begin);
    folder += (folder.empty() ? "" : "/") + decode_path(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return {folder, decode_path(path.substr(last + 1))};
}

// Copies a plain data file through the format's reader and writer, leaving out
// the FILE block at offset `drop` with its data: a valid data file that does
// not hold that item (the files after it move).
void rewrite_without(const std::string& from, const std::string& to, uint64_t drop)
{
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary | std::ios::trunc);
  MTF_Reader reader(
    [&in](void* data, size_t len) -> long long
    {
      in.read(static_cast<char*>(data), static_cast<std::streamsize>(len));
      return in.gcount();
    },
    false);
  MTF_Writer writer(
    [&out](const char* data, size_t len)
    {
      out.write(data, static_cast<std::streamsize>(len));
      return static_cast<bool>(out);
    },
    0);
  ASSERT_TRUE(writer.begin(MTF_Writer::Set_Info()));
  std::map<uint32_t, uint32_t> dirs;
  std::vector<char> piece(64 * 1024);
  for (;;)
  {
    ASSERT_FALSE(reader.at_end()) << reader.error();
    MTF_Reader::Block block;
    ASSERT_TRUE(reader.read_block(block)) << reader.error();
    if (block.type == "DIRB")
    {
      ASSERT_TRUE(writer.add_directory(block.directory, block.mtime, block.ctime, dirs[block.dir_id]));
    }
    MTF_Reader::Stream stream;
    while (reader.next_stream(stream) && stream.id != "SPAD")
    {
      if (block.type != "FILE" || stream.id != "STAN" || block.offset == drop)
      {
        ASSERT_TRUE(reader.skip_data()) << reader.error();
        continue;
      }
      MTF_Writer::Location where;
      ASSERT_TRUE(writer.begin_file(dirs[block.dir_id], block.name, block.mtime, block.ctime, stream.length, where));
      long long n;
      while ((n = reader.read_data(piece.data(), piece.size())) > 0)
        ASSERT_TRUE(writer.file_data(piece.data(), static_cast<size_t>(n)));
      bool complete = false;
      ASSERT_TRUE(writer.end_file(complete));
      ASSERT_TRUE(complete);
    }
    ASSERT_TRUE(reader.error().empty()) << reader.error();
    if (block.type == "ESET")
    {
      ASSERT_TRUE(writer.finish(block.corrupt_files)) << writer.error();
      return;
    }
  }
}

class Verify_Run : public Agent_Run_Fixture
{
protected:
  // Backs up `mailboxes` with the agent's backup command; its summary.
  nlohmann::json backup(const Exo_Sim_Process& sim, const std::vector<std::string>& mailboxes,
                        const std::string& compression)
  {
    configure(sim);
    std::vector<std::string> args = {"backup",     "--tenant", tenant_uuid,     "--pool",    "pool-1",
                                     "--channels", "2",        "--compression", compression, "--json"};
    for (const std::string& m : mailboxes)
      args.insert(args.end(), {"--mailbox", m});
    const Agent_Outcome run = agent(args, "backup");
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    return run.status == 0 ? nlohmann::json::parse(run.out) : nlohmann::json();
  }

  // `verify --json` of the set and its outcome; `report` is the JSON object.
  int verify(const std::string& set, nlohmann::json& report, const std::vector<std::string>& more = {})
  {
    std::vector<std::string> args = {"verify", "--set", set, "--json"};
    args.insert(args.end(), more.begin(), more.end());
    const Agent_Outcome run = agent(args, "verify");
    report = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_TRUE(report.is_object()) << run.out << run.err;
    return run.status;
  }

  static size_t total(const nlohmann::json& report, const char* key)
  {
    size_t n = 0;
    for (const auto& m : report["mailboxes"])
      n += m[key].get<size_t>();
    return n;
  }

  // The folder of the set's files in the pool, found as anyone would.
  std::string set_folder() const
  {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(dir_))
      if (entry.path().filename() == "set.1.cat")
        return entry.path().parent_path().string();
    return std::string();
  }
};
}  // namespace

TEST_F(Verify_Run, AnUntouchedSetIsSoundAndItsRestoreRehearsalRoundTrips)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string alice = sim.mailbox("alice.archer"), admin = sim.mailbox("admin");
  const nlohmann::json summary = backup(sim, {alice, admin}, "zstd");
  ASSERT_TRUE(summary.is_object());
  const std::string set = summary["set_uuid"].get<std::string>();

  nlohmann::json report;
  EXPECT_EQ(verify(set, report), 0) << report.dump();
  EXPECT_EQ(report["sound"], true);
  ASSERT_EQ(report["mailboxes"].size(), 2u);
  EXPECT_EQ(total(report, "verified"), summary["items"].get<size_t>());
  EXPECT_EQ(total(report, "missing") + total(report, "damaged"), 0u);
  EXPECT_TRUE(report["items"].empty()) << report["items"].dump();
  EXPECT_TRUE(report["problems"].empty()) << report["problems"].dump();

  // Usage errors as the other commands have them; a mailbox not in the set.
  const Agent_Outcome help = agent({"verify", "--help"}, "help");
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.says("usage: backup-agent [--config FILE] verify --set UUID")) << help.out;
  EXPECT_TRUE(agent({"--help"}, "top-help").says("\n  verify --set UUID"));
  EXPECT_EQ(agent({"verify", "--mailbox", alice}, "no-set").status, 64);
  EXPECT_EQ(agent({"verify", "--set", set, "--bogus"}, "bogus").status, 64);
  EXPECT_EQ(verify(set, report, {"--mailbox", sim.mailbox("nobody")}), 1);
  EXPECT_NE(report["error"].get<std::string>().find("no mailbox"), std::string::npos) << report.dump();
  EXPECT_EQ(verify("0b5e3c1a-no-such-set", report), 1);
  EXPECT_EQ(report["sound"], false);
  EXPECT_NE(report["error"].get<std::string>().find("no backup set"), std::string::npos) << report.dump();
  const Agent_Outcome text = agent({"verify", "--set", set}, "text");
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(text.says("mailbox " + alice + ": verified ")) << text.out;
  EXPECT_TRUE(text.says("the set is sound")) << text.out;

  // alice's mailbox restored into admin's and exported again, item by item.
  nlohmann::json alone;
  ASSERT_EQ(verify(set, alone, {"--mailbox", alice}), 0) << alone.dump();
  ASSERT_EQ(alone["mailboxes"].size(), 1u);
  const size_t items = alone["mailboxes"][0]["verified"].get<size_t>();
  EXPECT_GT(items, 5u);
  ASSERT_EQ(verify(set, report, {"--mailbox", alice, "--rehearse-into", admin}), 0) << report.dump();
  ASSERT_EQ(report["rehearsals"].size(), 1u);
  const nlohmann::json& rehearsal = report["rehearsals"][0];
  EXPECT_EQ(rehearsal["round_trips"].get<size_t>(), items) << rehearsal.dump();
  EXPECT_EQ(rehearsal["differ"], 0);
  EXPECT_EQ(rehearsal["not_restored"], 0);
  ASSERT_EQ(rehearsal["items"].size(), items);
  for (const auto& item : rehearsal["items"])
    EXPECT_EQ(item["state"], "round-trips") << item.dump();
  const std::string folder = rehearsal["folder"].get<std::string>();
  EXPECT_EQ(folder.rfind("Restore rehearsal " + set + " ", 0), 0u) << folder;

  // The scratch folder is there in admin's mailbox, holding alice's items.
  EWS_Client_Ptr target = client(sim, admin);
  EWS_Folders roots;
  ASSERT_TRUE(target->list_folders("", roots, true));
  const EWS_Folder* scratch = find(roots, folder);
  ASSERT_NE(scratch, nullptr);
  Tree_Contents restored, original;
  ASSERT_NO_FATAL_FAILURE(contents(*target, scratch->id, "", restored));
  ASSERT_NO_FATAL_FAILURE(contents(*client(sim, alice), "", "", original));
  EXPECT_EQ(restored.size(), items);
  EXPECT_TRUE(restored == original);

  // A byte flipped in the middle of a compressed data file spoils one zstd
  // frame: the items of that frame are damaged, reading goes on at the next
  // frame, and the rest of the file is verified.
  MTF_Set_Catalog catalog;
  std::string error;
  ASSERT_TRUE(catalog.parse(read_file(set_folder() + "/set.1.cat"), error)) << error;
  const MTF_Set_Catalog::Data_File& largest = *std::max_element(
    catalog.files.begin(), catalog.files.end(),
    [](const MTF_Set_Catalog::Data_File& a, const MTF_Set_Catalog::Data_File& b) { return a.stored < b.stored; });
  size_t in_file = 0;
  for (const MTF_Set_Catalog::Entry& e : catalog.entries)
    in_file += !e.dir && &catalog.files[e.data] == &largest;
  ASSERT_GT(largest.size, 3 * MTF_Writer::FRAME_TARGET) << "too few frames to show the damage is bounded";
  const std::string path = set_folder() + "/" + largest.name;
  std::string bytes = read_file(path);
  bytes[bytes.size() / 2] ^= 0x5a;
  write_file(path, bytes);
  EXPECT_EQ(verify(set, report), 1);
  EXPECT_EQ(report["sound"], false);
  EXPECT_GT(total(report, "damaged"), 0u) << report.dump();
  EXPECT_LT(total(report, "damaged"), in_file / 2) << report.dump();
  EXPECT_EQ(total(report, "verified") + total(report, "damaged"), summary["items"].get<size_t>());
}

TEST_F(Verify_Run, AlteredRemovedAndMissingItemsAreFoundAndNamed)
{
  Exo_Sim_Process sim({"--profile", "tiny"});
  const nlohmann::json summary = backup(sim, {sim.mailbox("alice.archer"), sim.mailbox("admin")}, "none");
  ASSERT_TRUE(summary.is_object());
  const std::string set = summary["set_uuid"].get<std::string>();
  const size_t items = summary["items"].get<size_t>();
  const std::string folder = set_folder();
  ASSERT_FALSE(folder.empty());

  MTF_Set_Catalog catalog;
  std::string error;
  ASSERT_TRUE(catalog.parse(read_file(folder + "/set.1.cat"), error)) << error;
  ASSERT_EQ(catalog.files.size(), 2u);
  // The data file holding the most items; two of its items whose path no
  // other item shares, so that the agent can name exactly them.
  std::map<std::string, int> uses;
  std::vector<size_t> per_file(catalog.files.size());
  for (const MTF_Set_Catalog::Entry& e : catalog.entries)
    if (!e.dir)
    {
      uses[e.path] += 1;
      per_file[e.data] += 1;
    }
  const uint32_t busy = per_file[0] >= per_file[1] ? 0 : 1;
  std::vector<const MTF_Set_Catalog::Entry*> unique, in_busy;
  for (const MTF_Set_Catalog::Entry& e : catalog.entries)
    if (!e.dir && e.data == busy)
    {
      in_busy.push_back(&e);
      if (uses[e.path] == 1 && e.length > 0)
        unique.push_back(&e);
    }
  ASSERT_GE(unique.size(), 2u);
  ASSERT_LT(in_busy.size(), items);
  const std::string first = folder + "/" + catalog.files[busy].name;
  const std::string original = read_file(first);

  // Checks that the fault touched exactly `named` (with `state`), every other
  // item being verified.
  auto expect_only =
    [&](const nlohmann::json& report, const std::vector<const MTF_Set_Catalog::Entry*>& named, const std::string& state)
  {
    EXPECT_EQ(report["sound"], false);
    EXPECT_EQ(total(report, state == "damaged" ? "damaged" : "missing"), named.size()) << report.dump();
    EXPECT_EQ(total(report, "verified"), items - named.size()) << report.dump();
    ASSERT_EQ(report["items"].size(), named.size()) << report["items"].dump();
    std::multiset<std::pair<std::string, std::pair<std::string, std::string>>> want, got;
    for (const MTF_Set_Catalog::Entry* e : named)
      want.emplace(get_mailbox(e->path), folder_and_item(e->path));
    for (const auto& item : report["items"])
    {
      EXPECT_EQ(item["state"], state) << item.dump();
      EXPECT_FALSE(item["id"].get<std::string>().empty()) << item.dump();
      EXPECT_FALSE(item["reason"].get<std::string>().empty()) << item.dump();
      got.emplace(item["mailbox"].get<std::string>(),
                  std::make_pair(item["folder"].get<std::string>(), item["item"].get<std::string>()));
    }
    EXPECT_TRUE(got == want) << report["items"].dump();
  };

  // One byte of an item's data altered on disk.
  {
    const MTF_Set_Catalog::Entry& altered = *unique[1];
    std::ifstream in(first, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(altered.offset));
    MTF_Reader reader(
      [&in](void* data, size_t len) -> long long
      {
        in.read(static_cast<char*>(data), static_cast<std::streamsize>(len));
        return in.gcount();
      },
      false, altered.offset);
    MTF_Reader::Block block;
    MTF_Reader::Stream stream;
    ASSERT_TRUE(reader.read_block(block)) << reader.error();
    while (reader.next_stream(stream) && stream.id != "STAN")
      ASSERT_TRUE(reader.skip_data());
    ASSERT_EQ(stream.id, "STAN");
    std::string damaged = original;
    damaged[stream.offset + 22 + altered.length / 2] ^= 0x20;  // the data follows the 22-byte stream header
    write_file(first, damaged);
    nlohmann::json report;
    EXPECT_EQ(verify(set, report), 1);
    expect_only(report, {&altered}, "damaged");
    EXPECT_NE(report["items"][0]["reason"].get<std::string>().find("SHA-256"), std::string::npos) << report.dump();

    // Its mailbox rehearsed: the restore refuses the altered item, every
    // other item round-trips and the altered one is named as not restored.
    const std::string mailbox = get_mailbox(altered.path);
    const std::string into = mailbox == sim.mailbox("admin") ? sim.mailbox("alice.archer") : sim.mailbox("admin");
    EXPECT_EQ(verify(set, report, {"--mailbox", mailbox, "--rehearse-into", into}), 1);
    ASSERT_EQ(report["rehearsals"].size(), 1u) << report.dump();
    const nlohmann::json& rehearsal = report["rehearsals"][0];
    EXPECT_EQ(rehearsal["round_trips"], report["mailboxes"][0]["verified"]) << rehearsal.dump();
    EXPECT_EQ(rehearsal["differ"], 0);
    EXPECT_EQ(rehearsal["not_restored"], 1);
    for (const auto& item : rehearsal["items"])
      if (item["state"] != "round-trips")
      {
        EXPECT_EQ(item["state"], "not restored");
        EXPECT_EQ(std::make_pair(item["folder"].get<std::string>(), item["item"].get<std::string>()),
                  folder_and_item(altered.path));
      }
  }

  // An item's block header damaged: its checksum fails, that item alone is
  // damaged and reading goes on at the next item.
  {
    const MTF_Set_Catalog::Entry& broken = *unique[1];
    std::string damaged = original;
    damaged[broken.offset + 20] ^= 0x01;  // a byte of the header's fixed fields
    write_file(first, damaged);
    nlohmann::json report;
    EXPECT_EQ(verify(set, report), 1);
    expect_only(report, {&broken}, "damaged");
    EXPECT_FALSE(report["problems"].empty());
  }

  // The data file cut off inside an item: that item and every later one of
  // the file are damaged, the earlier ones verified.
  {
    const MTF_Set_Catalog::Entry& cut = *unique[1];
    write_file(first, original.substr(0, cut.offset + 100));
    std::vector<const MTF_Set_Catalog::Entry*> lost;
    for (const MTF_Set_Catalog::Entry* e : in_busy)
      if (e->offset >= cut.offset)
        lost.push_back(e);
    nlohmann::json report;
    EXPECT_EQ(verify(set, report), 1);
    expect_only(report, lost, "damaged");
  }

  // An item left out of the data file: the data file is valid, the files after
  // it have moved, and only the one left out is missing.
  {
    const MTF_Set_Catalog::Entry& removed = *unique[0];
    write_file(first, original);
    ASSERT_NO_FATAL_FAILURE(rewrite_without(first, first + ".new", removed.offset));
    std::filesystem::rename(first + ".new", first);
    nlohmann::json report;
    EXPECT_EQ(verify(set, report), 1);
    expect_only(report, {&removed}, "missing");
  }

  // A data file gone: each of its items is missing.
  {
    std::filesystem::remove(first);
    nlohmann::json report;
    EXPECT_EQ(verify(set, report), 1);
    expect_only(report, in_busy, "missing");
    EXPECT_FALSE(report["problems"].empty());
    const Agent_Outcome text = agent({"verify", "--set", set}, "text");
    EXPECT_EQ(text.status, 1);
    EXPECT_TRUE(text.says("missing: " + get_mailbox(in_busy[0]->path) + " \"")) << text.out;
    EXPECT_TRUE(text.says("the set is NOT sound")) << text.out;
    write_file(first, original);
  }

  // Put back, the set is sound again.
  nlohmann::json report;
  EXPECT_EQ(verify(set, report), 0) << report.dump();
  EXPECT_EQ(total(report, "verified"), items);
}
