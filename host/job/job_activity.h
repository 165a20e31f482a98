#ifndef HOST_JOB_JOB_ACTIVITY_H
#define HOST_JOB_JOB_ACTIVITY_H

#include <atomic>
#include <cstdint>
#include <cstring>

// The live record of one job: its state, last outcome and progress. It lives in
// a memory-mapped file (one per job, see Mem_Map_Handle) so that another process,
// such as `backup-agent status`, can watch a running job. The layout is fixed:
// only plain integers and character arrays, fields never move, and `version` is
// raised when one is added at the end.
//
// `state` and `progress` are written from several threads (host requests, the
// job thread, stream channel threads) and read without a lock: they are atomic.
// The other fields are written by the job thread only.
struct Job_Activity
{
  static const uint32_t MAGIC = 0x4a414354;  // "JACT"
  static const uint32_t VERSION = 1;
  static const size_t MESSAGE_SIZE = 1024;

  uint32_t magic;
  uint32_t version;
  unsigned char uid[16];
  std::atomic<int32_t> state;
  std::atomic<int32_t> progress;  // percent, 0 to 100
  int32_t result;                 // Job_Result of the last run
  int32_t pid;                    // process running the job
  int64_t code;                   // failure code of the last run, 0 when none
  int64_t start_time;             // seconds since the epoch
  int64_t last_run_time;          // seconds since the epoch
  uint64_t size;                  // bytes of data backed up or restored
  uint64_t set_size;              // bytes of the backup set
  uint64_t set_storage_size;      // bytes stored after compression
  char message[MESSAGE_SIZE];     // failure text of the last run, terminated
  // Figures of the run under way, as its streams report them (zero until the
  // first report): items and bytes of data done so far. Watchers read them for
  // a live progress display; after the run they hold its last report.
  std::atomic<uint64_t> items_done;
  std::atomic<uint64_t> bytes_done;

  // Fills a fresh record (all zero, idle).
  void init();
  // Sets `message`, truncated to fit and always terminated.
  void set_message(const char* text);
};

static_assert(std::atomic<int32_t>::is_always_lock_free, "activity fields must be lock-free");
static_assert(std::atomic<uint64_t>::is_always_lock_free, "activity fields must be lock-free");
static_assert(sizeof(Job_Activity) <= 4096, "the activity record is one 4096-byte page");

#endif
