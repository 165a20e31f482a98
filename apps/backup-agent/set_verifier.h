#ifndef APPS_BACKUP_AGENT_SET_VERIFIER_H
#define APPS_BACKUP_AGENT_SET_VERIFIER_H

#include "host/mtf/mtf_set_catalog.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class Client_IO_Ex;

// Reads a backup set back from storage and decides, for every file its catalog
// names, whether the set still holds it intact:
// - each data file is streamed once from its first byte (bounded memory: one
//   reader, whatever the file's size), every descriptor block and stream header
//   checked as MTF_Reader checks them (grid, checksums, SPAD), the SHA-256 of
//   every FILE's data computed and compared with the catalog's;
// - where a data file is damaged, reading starts again at the next catalog entry
//   after the damage (its zstd frame, or its block), so damage costs the entries
//   it touches and not the rest of the file;
// - a file found elsewhere than its catalog offset with its path, length and
//   SHA-256 counts as held (a data file rewritten without some file has the
//   later ones moved).
// The outcome of each catalog entry is SOUND, MISSING (the data files do not
// hold it) or DAMAGED (held, but unreadable or other bytes), with the reason.
// One thread at a time; `io` must stay open at the set's location.
class Set_Verifier
{
public:
  enum State
  {
    UNCHECKED,  // a directory, or a file the caller did not want checked
    SOUND,
    MISSING,
    DAMAGED
  };
  struct Outcome
  {
    State state = UNCHECKED;
    std::string reason;
  };
  // Called after each block read with the MTF bytes passed so far (those of
  // the data files done, and the position in the one being read).
  typedef std::function<void(uint64_t bytes_read)> Progress;

  explicit Set_Verifier(Client_IO_Ex& io) : io_(io) {}

  // Reads and parses catalog file `name`; false with `error` when it is missing
  // or malformed (the set cannot be verified then).
  bool read_catalog(const std::string& name, std::string& error);
  const MTF_Set_Catalog& catalog() const { return catalog_; }

  // Checks every catalog file whose path `wanted` accepts; outcomes() then has
  // one outcome per catalog entry, problems() the damage found per data file.
  void check(const std::function<bool(const std::string& path)>& wanted, const Progress& progress);

  const std::vector<Outcome>& outcomes() const { return outcomes_; }
  const std::vector<std::string>& problems() const { return problems_; }

private:
  void check_data_file(uint32_t index, const std::function<bool(const std::string& path)>& wanted,
                       const Progress& progress);

  Client_IO_Ex& io_;
  MTF_Set_Catalog catalog_;
  std::vector<Outcome> outcomes_;
  std::vector<std::string> problems_;
  uint64_t bytes_done_ = 0;  // MTF bytes of the data files done
};

#endif
