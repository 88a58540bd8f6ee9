#include "recover/tally.h"

#include <numeric>

namespace recover {
namespace {

// Transactions that are remembered: more than any machine runs at once, and more than anybody
// reads about.
constexpr std::size_t kMostRunning = 65536;
constexpr std::size_t kMostEnded = 10000;

}  // namespace

std::int64_t KindCounts::total() const {
  return std::accumulate(counts_.begin(), counts_.end(), std::int64_t{0},
                         [](std::int64_t sum, const auto& kind) { return sum + kind.second; });
}

std::string KindCounts::text() const {
  std::string text = std::to_string(total());
  const char* separator = ": ";
  for (const auto& [type, count] : counts_) {
    text += std::exchange(separator, ", ") + std::to_string(count) + " " + words_of(type);
  }
  return text;
}

void Transactions::add(const LogRecord& record, std::int64_t offset) {
  const std::int32_t process = record.process();
  const auto found = running_.find(process);
  if (found != running_.end()) ++found->second.records;
  switch (type_of(record)) {
    case LogType::kBegin:
      if (found != running_.end()) {
        --found->second.records;
        end(process, Ending::kUnfinished, offset);
      }
      if (running_.size() < kMostRunning) {
        running_[process] = {offset, 1};
      } else {
        ++not_followed_;
      }
      break;
    case LogType::kCommit:
      end(process, Ending::kCommitted, offset);
      break;
    case LogType::kRollback:
      end(process, Ending::kRolledBack, offset);
      break;
    default:
      break;
  }
}

void Transactions::end(std::int32_t process, Ending how, std::int64_t offset) {
  const auto found = running_.find(process);
  if (found == running_.end()) {
    ++stray_marks_;
    return;
  }
  ++counts_[how];
  if (ended_.size() < kMostEnded) ended_.push_back({how, process, found->second, offset});
  running_.erase(found);
}

void Transactions::finish() {
  while (!running_.empty()) end(running_.begin()->first, Ending::kUnfinished, 0);
}

std::string Transactions::text() const {
  struct Words {
    Ending how;
    const char* text;
  };
  constexpr Words kWords[] = {{Ending::kCommitted, "committed"},
                              {Ending::kRolledBack, "rolled back"},
                              {Ending::kUnfinished, "unfinished"}};
  std::string text = "transactions";
  const char* separator = ": ";
  std::int64_t total = 0;
  for (const Words& words : kWords) {
    const auto found = counts_.find(words.how);
    const std::int64_t count = found == counts_.end() ? 0 : found->second;
    text += std::exchange(separator, ", ") + std::to_string(count) + " " + words.text;
    total += count;
  }
  text += "\n";
  for (const Words& words : kWords) {
    for (const Ended& ended : ended_) {
      if (ended.how != words.how) continue;
      text += "  " + std::string{words.text} + ": process " + std::to_string(ended.process) +
              ", offset " + std::to_string(ended.what.offset);
      if (ended.how != Ending::kUnfinished) text += " to " + std::to_string(ended.last);
      text += ", " + std::to_string(ended.what.records) + " records\n";
    }
  }
  const auto more = total - static_cast<std::int64_t>(ended_.size());
  if (more > 0) text += "  and " + std::to_string(more) + " more\n";
  if (stray_marks_ > 0) text += "  ends without a begin: " + std::to_string(stray_marks_) + "\n";
  if (not_followed_ > 0) text += "  not followed: " + std::to_string(not_followed_) + "\n";
  return text;
}

}  // namespace recover
