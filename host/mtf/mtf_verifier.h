#ifndef HOST_MTF_MTF_VERIFIER_H
#define HOST_MTF_MTF_VERIFIER_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/mtf/mtf_reader.h"
#include "host/mtf/mtf_set_catalog.h"

class Client_IO_Ex;

// Checks backup sets without restoring anything (and without the system they
// came from):
// - check_data_file reads one data file from its first to its last byte and
//   checks its whole structure: TAPE, SSET, VOLB first; then DIRB and FILE blocks,
//   each FILE after a DIRB with its directory id; every block on the grid with
//   valid header and stream checksums and ending in SPAD; ESET last and nothing
//   after it. It lists every file it holds with its data's SHA-256.
// - check_set reads a set's catalog file and data files through a storage
//   client and compares them: every catalog entry must be where the catalog says,
//   with the same length and SHA-256, and every file of the data files must be
//   in the catalog.
// Errors are texts that name the data file, the offset and, where one is
// concerned, the backed-up path. One thread at a time.
class MTF_Verifier
{
public:
  struct File
  {
    std::string path;  // directory components and name joined by `separator`
    uint64_t offset = 0;
    uint64_t length = 0;
    std::string sha256;
  };

  explicit MTF_Verifier(char separator = '/') : separator_(separator) {}

  // False when the file is not a whole, valid data file; `error` says why.
  bool check_data_file(MTF_Reader::Source source, bool compressed, const std::string& name, std::vector<File>& files,
                       std::vector<std::string>& directories, std::string& error);

  // Checks revision `rev` of the set at the storage client's location; every
  // problem found is appended to `errors`. True when none was found.
  bool check_set(Client_IO_Ex& io, int rev, std::vector<std::string>& errors);

private:
  char separator_;
};

#endif
