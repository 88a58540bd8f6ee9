#include "recover/tally.h"

#include <array>
#include <numeric>
#include <utility>

#include "recover/words.h"

namespace recover {
namespace {

// Memory is bounded, whatever the log holds. No more transactions than this are followed at a time;
// no machine runs as many.
constexpr std::size_t kMostRunning = 65536;
// No more than this of each way of ending are listed one by one; nobody reads as many.
constexpr std::size_t kMostListed = 10000;

constexpr std::int64_t kNoEndMark = 0;  // in place of the offset of one

template <typename Kind>
std::int64_t sum_of(const std::map<Kind, std::int64_t>& counts) {
  return std::accumulate(counts.begin(), counts.end(), std::int64_t{0},
                         [](std::int64_t sum, const auto& entry) { return sum + entry.second; });
}

}  // namespace

std::int64_t KindCounts::total() const { return sum_of(counts_); }

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
        // The mark belongs to the new transaction; above it was counted for the old one.
        --found->second.records;
        end(process, Ending::kUnfinished, kNoEndMark);
      }
      if (running_.size() < kMostRunning) {
        running_[process] = {offset, 1};
      } else {
        ++not_followed_;  // its end mark will count among those without a begin
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
  std::vector<Ended>& list = ended_[how];
  if (list.size() < kMostListed) list.push_back({process, found->second, offset});
  running_.erase(found);
}

void Transactions::finish() {
  while (!running_.empty()) end(running_.begin()->first, Ending::kUnfinished, kNoEndMark);
}

std::string Transactions::text() const {
  constexpr std::array kWords = {Word<Ending>{Ending::kCommitted, "committed"},
                                 Word<Ending>{Ending::kRolledBack, "rolled back"},
                                 Word<Ending>{Ending::kUnfinished, "unfinished"}};
  std::string text = "transactions: " + counts_text(kWords, counts_) + "\n";
  for (const auto& [how, list] : ended_) {
    for (const Ended& ended : list) {
      text += "  " + std::string{word_for(kWords, how)} + ": process " +
              std::to_string(ended.process) + ", offset " +
              std::to_string(ended.transaction.offset);
      if (how != Ending::kUnfinished) text += " to " + std::to_string(ended.last);
      text += ", " + std::to_string(ended.transaction.records) + " records\n";
    }
    const std::int64_t more = counts_.at(how) - static_cast<std::int64_t>(list.size());
    if (more == 0) continue;
    text += "  and " + std::to_string(more) + " more " + word_for(kWords, how) + "\n";
  }
  if (stray_marks_ > 0) text += "  ends without a begin: " + std::to_string(stray_marks_) + "\n";
  if (not_followed_ > 0) text += "  not followed: " + std::to_string(not_followed_) + "\n";
  return text;
}

}  // namespace recover
