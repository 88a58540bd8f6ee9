#include "recover/tally.h"

#include <array>
#include <numeric>
#include <utility>

#include "recover/words.h"

namespace recover {
namespace {

// Transactions that are remembered: more than any machine runs at once, and more than anybody
// reads about.
constexpr std::size_t kMostRunning = 65536;
constexpr std::size_t kMostEnded = 10000;

template <typename Kind>
std::int64_t sum_of(const std::map<Kind, std::int64_t>& counts) {
  return std::accumulate(counts.begin(), counts.end(), std::int64_t{0},
                         [](std::int64_t sum, const auto& kind) { return sum + kind.second; });
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
  constexpr std::array kWords = {Word<Ending>{Ending::kCommitted, "committed"},
                                 Word<Ending>{Ending::kRolledBack, "rolled back"},
                                 Word<Ending>{Ending::kUnfinished, "unfinished"}};
  std::string text = "transactions: " + counts_text(kWords, counts_) + "\n";
  for (const Word<Ending>& word : kWords) {
    for (const Ended& ended : ended_) {
      if (ended.how != word.kind) continue;
      text += "  " + std::string{word.text} + ": process " + std::to_string(ended.process) +
              ", offset " + std::to_string(ended.what.offset);
      if (ended.how != Ending::kUnfinished) text += " to " + std::to_string(ended.last);
      text += ", " + std::to_string(ended.what.records) + " records\n";
    }
  }
  const auto more = sum_of(counts_) - static_cast<std::int64_t>(ended_.size());
  if (more > 0) text += "  and " + std::to_string(more) + " more\n";
  if (stray_marks_ > 0) text += "  ends without a begin: " + std::to_string(stray_marks_) + "\n";
  if (not_followed_ > 0) text += "  not followed: " + std::to_string(not_followed_) + "\n";
  return text;
}

}  // namespace recover
