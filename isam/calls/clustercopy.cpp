#include "isam/calls/clustercopy.h"

#include <algorithm>
#include <new>
#include <vector>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/records/datafile.h"
#include "isam/tree/items.h"

namespace isam {
namespace {

class Copy {
 public:
  Copy(int from, int to, const CopyOrder& order, int longest)
      : from_(from), to_(to), order_(order), record_(static_cast<std::size_t>(longest) + 1) {}

  // 0, or -1 with iserrno.
  int run(std::int32_t records) {
    if (isstart(from_, &order_.key, 0, record_.data(), RD_FIRST) != 0) return -1;
    while (isread(from_, record_.data(), RD_NEXT) == 0) {
      if (take() != 0) return -1;
    }
    if (iserrno != kEndOfFile || write_equals() != 0) return -1;
    return copied_ == records ? 0 : failed(kCorrupted);
  }

 private:
  // The record just read is written, or waits for its equals.
  int take() {
    const bool equal_follows = isstat2 == '2';
    const std::int32_t number = isrecnum;
    if (count(number) != 0) return -1;
    if (order_.equals == AmongEquals::kAsIndexed || (equals_.empty() && !equal_follows)) {
      return iswrite(to_, record_.data());
    }
    const auto* const bytes = reinterpret_cast<const Byte*>(record_.data());
    Item item;
    itmake(bytes, item, order_.key);
    // The equal item that was to follow may have had no record: then this one has another key.
    const bool other = !equals_.empty() && itcompare(item, equal_key_, KeyOrder{order_.key}) != 0;
    if (other && write_equals() != 0) return -1;
    equal_key_ = item;
    equals_.push_back(number);
    return equal_follows ? 0 : write_equals();
  }

  int count(std::int32_t number) {
    const auto place = static_cast<std::size_t>(number);
    if (place >= copies_.size()) copies_.resize(std::max(place + 1, 2 * copies_.size()));
    if (copies_[place]) return failed(kCorrupted);
    copies_[place] = true;
    ++copied_;
    return 0;
  }

  int write_equals() {
    std::ranges::sort(equals_);
    for (const std::int32_t number : equals_) {
      if (read_again(number) != 0 || iswrite(to_, record_.data()) != 0) return -1;
    }
    equals_.clear();
    return 0;
  }

  int read_again(std::int32_t number) {
    Call call{from_, {.access = Access::kToRead}};
    if (!call) return -1;
    const int length = dataread(number, {reinterpret_cast<Byte*>(record_.data()),
                                         static_cast<std::size_t>(filep->geometry.maxreclen)});
    if (length < 0) failed_unless_set(kCorrupted);
    isreclen = length;
    return call.end();
  }

  int from_;
  int to_;
  CopyOrder order_;
  std::vector<char> record_;
  std::vector<bool> copies_;  // by number: whether it has been read
  std::int32_t copied_ = 0;
  std::vector<std::int32_t> equals_;  // read and not yet written
  Item equal_key_;                    // ... their key
};

}  // namespace

int copy_records(int from, int to, const CopyOrder& order, std::int32_t records, int longest) {
  try {
    return Copy{from, to, order, longest}.run(records);
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
}

}  // namespace isam
