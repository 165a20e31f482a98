#include "apps/backup-agent/backup_progress.h"

#include <cstdio>

namespace
{
// The quoted mailbox after `marker` in `line`; empty when there is none.
std::string quoted_after(const std::string& line, const std::string& marker)
{
  const size_t at = line.find(marker);
  if (at == std::string::npos)
    return std::string();
  const size_t start = at + marker.size();
  const size_t end = line.find('\'', start);
  return end == std::string::npos ? std::string() : line.substr(start, end - start);
}

std::string mib(uint64_t bytes)
{
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f MiB", static_cast<double>(bytes) / (1024.0 * 1024.0));
  return text;
}
}  // namespace

std::string format_duration(double seconds)
{
  const long s = seconds < 0 ? 0 : static_cast<long>(seconds + 0.5);
  char text[32];
  if (s >= 3600)
    std::snprintf(text, sizeof(text), "%ldh%02ldm%02lds", s / 3600, s / 60 % 60, s % 60);
  else if (s >= 60)
    std::snprintf(text, sizeof(text), "%ldm%02lds", s / 60, s % 60);
  else
    std::snprintf(text, sizeof(text), "%lds", s);
  return text;
}

Backup_Progress::Backup_Progress(size_t mailboxes, const std::string& log_path) : total_(mailboxes)
{
  if (log_path.empty())
    return;
  log_.open(log_path);
  // Earlier runs' lines are not this run's events.
  log_.seekg(0, std::ios::end);
}

bool Backup_Progress::take_line(const std::string& line, std::string& mailbox, bool& ok)
{
  const size_t item = line.find("EWS item ");
  const size_t failure = line.find(" could not be exported: ");
  if (item != std::string::npos && failure != std::string::npos)
  {
    const std::string id = line.substr(item + 9, line.find(' ', item + 9) - item - 9);
    item_errors_[id] = line.substr(failure + 24);
    return false;
  }
  mailbox = quoted_after(line, "Failed to process mailbox '");
  ok = mailbox.empty();
  if (ok)
  {
    const size_t end = line.rfind("' processed.");
    const size_t start = line.find("Mailbox '");
    if (start == std::string::npos || end == std::string::npos || end < start + 9)
      return false;
    mailbox = line.substr(start + 9, end - start - 9);
  }
  ++done_;
  if (!ok)
    ++failed_;
  return true;
}

void Backup_Progress::poll(uint64_t items, uint64_t bytes, std::string& finished)
{
  if (!log_.is_open())
    return;
  log_.clear();  // past the end last time; the file may have grown since
  std::string chunk;
  char buffer[4096];
  while (log_.read(buffer, sizeof(buffer)) || log_.gcount() > 0)
    chunk.append(buffer, static_cast<size_t>(log_.gcount()));
  partial_ += chunk;
  size_t start = 0;
  for (size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1)
  {
    std::string mailbox;
    bool ok = false;
    if (!take_line(partial_.substr(start, end - start), mailbox, ok))
      continue;
    finished += "mailbox " + std::to_string(done_) + "/" + std::to_string(total_) + " " + mailbox +
                (ok ? ": backed up" : ": FAILED") + " (" + std::to_string(items) + " items, " + mib(bytes) +
                " so far)\n";
  }
  partial_.erase(0, start);
}

std::string Backup_Progress::line(uint64_t items, uint64_t bytes, double seconds) const
{
  std::string text = "mailboxes " + std::to_string(done_) + "/" + std::to_string(total_) + ", " +
                     std::to_string(items) + " items, " + mib(bytes);
  char rate[48];
  std::snprintf(rate, sizeof(rate), ", %.1f MiB/s",
                seconds > 0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0.0);
  text += rate;
  text += ", elapsed " + format_duration(seconds);
  if (done_ > 0 && done_ < total_)
    text += ", ETA " + format_duration(seconds * static_cast<double>(total_ - done_) / static_cast<double>(done_));
  return text;
}
