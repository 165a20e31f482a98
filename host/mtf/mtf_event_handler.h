#ifndef HOST_MTF_MTF_EVENT_HANDLER_H
#define HOST_MTF_MTF_EVENT_HANDLER_H

#include <ace/Basic_Types.h>

namespace MTF
{
// What a backup or restore stream tells its owner while it runs, and how it asks
// whether to stop. The streams call both operations from their channel threads,
// concurrently: implementations must be thread-safe. The handler is owned by the
// stream's creator and must outlive the stream.
class Event_Handler
{
public:
  // What the stream's percentages count.
  enum Progress_Report_Mode
  {
    PRM_FILE_SIZE = 0,   // bytes of file data
    PRM_FILE_COUNT = 1,  // files
  };

  explicit Event_Handler(Progress_Report_Mode mode = PRM_FILE_SIZE);

  Progress_Report_Mode progress_report_mode() const { return mode_; }

  // Progress of the stream: `percent` (0..100) in the handler's mode, with the
  // bytes done, the bytes expected (0 when unknown) and the files done. The
  // result goes back to the stream: 0 to go on, -1 to ask it to stop. The base
  // accepts and goes on.
  virtual int handle_progress(int percent, ACE_UINT64 bytes_done, ACE_UINT64 bytes_total, ACE_UINT64 files_done);

  // Asked between files and blocks: true makes the stream stop as cancelled. The
  // base never cancels.
  virtual bool canceling();

  virtual ~Event_Handler();

private:
  Progress_Report_Mode mode_;
};
}  // namespace MTF

#endif
