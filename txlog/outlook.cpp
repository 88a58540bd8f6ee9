#include "txlog/outlook.h"

#include <algorithm>
#include <functional>
#include <string_view>

#include "isam/base/errors.h"

namespace isam::txlog {
namespace {

std::size_t hash_of(ConstBytes bytes) {
  return std::hash<std::string_view>{}({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
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

bool LogOutlook::is_new_process(const Opening& opening) {
  if (is_followed_up(opening)) return false;
  if (!is_read_) read();
  return std::ranges::binary_search(of_new_processes_, opening.offset) ||
         (opening.reopens && std::ranges::binary_search(unclaimed_, opening.offset));
}

// Whether what the file is opened for, the next record, is linked to one of the transaction.
bool LogOutlook::is_followed_up(const Opening& opening) {
  const KeepError keep;
  const LogRecord next = look_.isgetnext(opening.offset + opening.record.length());
  if (!next || !next.is_sound()) return false;
  const Link previous = next.previous();
  return next.process() == opening.record.process() && previous.length != 0 &&
         previous.offset >= opening.begin && previous.offset < opening.offset;
}

void LogOutlook::read() {
  const KeepError keep;
  is_read_ = true;
  std::unordered_map<std::int32_t, Process> processes;
  LogScan scan{fd_};
  for (;;) {
    const LogRecord record = scan.next();
    if (!record || !record.is_sound() || record.type() == LogType::kEnd) break;
    const std::int64_t offset = scan.offset();
    Process& process = processes[record.process()];
    follow_transaction(process, record, offset);
    const Trace trace = trace_of(record);
    const bool takes_back = are_opposites(process.trace, trace);
    if (takes_back) {
      taken_back_.emplace_back(process.last, offset);
      opposites_.push_back(offset);
    }
    process.trace = takes_back ? Trace{} : trace;  // an opposite is not taken back itself
    process.last = offset;
  }
  for (auto& [number, process] : processes) leave_unclaimed(process);
  std::ranges::sort(taken_back_);
  std::ranges::sort(unclaimed_);
  std::ranges::sort(of_new_processes_);
}

// The process that began a transaction ends it, or goes on in it with a record that is linked to
// one of it. A chain of links with another beginning is another process's.
void LogOutlook::follow_transaction(Process& process, const LogRecord& record,
                                    std::int64_t offset) {
  const Link previous = record.previous();
  switch (record.type()) {
    case LogType::kBegin:
      if (process.begun) follow_link(process, previous, offset);
      leave_unclaimed(process);
      end_transaction(process);
      process.begun = true;
      process.begin = process.chain_end = offset;
      return;
    case LogType::kCommit:
    case LogType::kRollback:
      end_transaction(process);
      return;
    default:
      break;
  }
  if (!process.begun) return;
  if (record.type() == LogType::kOpened) {
    process.openings.push_back(offset);
    if (const auto open = record.open_number()) process.by_number[*open] = {offset, 0};
  } else if (previous.length != 0) {
    follow_link(process, previous, offset);
  } else if (is_image(record.type())) {
    const auto open = record.open_number();
    const auto found = open ? process.by_number.find(*open) : process.by_number.end();
    if (found != process.by_number.end()) found->second.unlinked = offset;
  }
}

void LogOutlook::follow_link(Process& process, Link previous, std::int64_t offset) {
  if (previous.length == 0 || previous.offset < process.begin) return;
  if (previous.offset <= process.chain_end) {  // its process goes on: it opened these files
    process.openings.clear();
    if (!process.by_number.empty()) process.by_number.clear();
    process.chain_end = offset;
    return;
  }
  // It is linked to one that begins a chain: the process is another since it opened the file for
  // that one at the latest.
  for (const auto& [open, opening] : process.by_number) {
    if (opening.unlinked != previous.offset) continue;
    of_new_processes_.push_back(opening.offset);
    break;
  }
  leave_unclaimed(process);
  end_transaction(process);
}

void LogOutlook::leave_unclaimed(Process& process) {
  unclaimed_.insert(unclaimed_.end(), process.openings.begin(), process.openings.end());
  process.openings.clear();
}

void LogOutlook::end_transaction(Process& process) {
  process.begun = false;
  process.openings.clear();
  process.by_number.clear();
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
