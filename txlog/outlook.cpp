#include "txlog/outlook.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "isam/errors.h"

namespace isam::txlog {
namespace {

std::size_t hash_of(ConstBytes bytes) {
  return std::hash<std::string_view>{}({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

bool is_image(LogType type) {
  return type == LogType::kDelete || type == LogType::kInsert || type == LogType::kUpdate;
}

}  // namespace

std::int64_t LogOutlook::opposite_of(std::int64_t image) {
  if (!is_read_) read();
  const auto found = std::ranges::lower_bound(taken_back_, image, {},
                                              &std::pair<std::int64_t, std::int64_t>::first);
  return found != taken_back_.end() && found->first == image ? found->second : -1;
}

bool LogOutlook::is_opposite(std::int64_t offset) {
  if (!is_read_) read();
  return std::ranges::binary_search(opposites_, offset);
}

bool LogOutlook::is_new_process(std::int64_t offset) {
  if (!is_read_) read();
  return std::ranges::binary_search(of_new_processes_, offset);
}

void LogOutlook::read() {
  const KeepError keep;
  is_read_ = true;
  std::unordered_map<std::int32_t, Process> processes;
  LogWindow window{fd_};
  std::int64_t offset = kMagicSize;
  for (;;) {
    const LogRecord record = window.isgetnext(offset);
    if (record.bytes().empty() || record.length() < record::kSmallest || !record.is_sound()) break;
    if (record.type() == LogType::kEnd) break;
    Process& process = processes[record.process()];
    follow_transaction(process, record, offset);
    const Trace trace = trace_of(record);
    if (are_opposites(process.trace, trace)) {
      taken_back_.emplace_back(process.last, offset);
      opposites_.push_back(offset);
    }
    process.trace = trace;
    process.last = offset;
    offset += record.length();
  }
  for (auto& [number, process] : processes) settle(process);
  std::ranges::sort(taken_back_);
  std::ranges::sort(of_new_processes_);
}

// The process that began a transaction ends it, or goes on in it with a record that is linked to
// one before the opening.
void LogOutlook::follow_transaction(Process& process, const LogRecord& record,
                                    std::int64_t offset) {
  switch (record.type()) {
    case LogType::kBegin:
      settle(process);
      process.begun = true;
      process.begin = offset;
      return;
    case LogType::kCommit:
    case LogType::kRollback:
      process.begun = false;
      process.openings.clear();
      return;
    case LogType::kOpened:
      if (process.begun) process.openings.push_back(offset);
      return;
    default:
      break;
  }
  const Link previous = record.previous();
  if (previous.length == 0 || previous.offset < process.begin) return;
  std::vector<std::int64_t>& openings = process.openings;
  while (!openings.empty() && openings.back() > previous.offset) openings.pop_back();
}

void LogOutlook::settle(Process& process) {
  of_new_processes_.insert(of_new_processes_.end(), process.openings.begin(),
                           process.openings.end());
  process.openings.clear();
}

LogOutlook::Trace LogOutlook::trace_of(const LogRecord& record) {
  if (!is_image(record.type())) return {};
  const auto image = record.image();
  if (!image) return {};
  return {record.type(),
          image->open,
          image->number,
          record.previous(),
          hash_of(image->old_image),
          hash_of(image->new_image)};
}

bool LogOutlook::are_opposites(const Trace& image, const Trace& next) {
  const auto opposite = image.type == LogType::kDelete   ? LogType::kInsert
                        : image.type == LogType::kInsert ? LogType::kDelete
                                                         : image.type;
  return is_image(image.type) && next.type == opposite && next.open == image.open &&
         next.number == image.number && next.previous.offset == image.previous.offset &&
         next.previous.length == image.previous.length && next.old_hash == image.new_hash &&
         next.new_hash == image.old_hash;
}

}  // namespace isam::txlog
