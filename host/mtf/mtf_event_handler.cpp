#include "host/mtf/mtf_event_handler.h"

namespace MTF
{
Event_Handler::Event_Handler(Progress_Report_Mode mode) : mode_(mode) {}

int Event_Handler::handle_progress(int, ACE_UINT64, ACE_UINT64, ACE_UINT64) { return 0; }

bool Event_Handler::canceling() { return false; }

Event_Handler::~Event_Handler() = default;
}  // namespace MTF
