#include "zentra/transfer/freenumbers.h"

#include <algorithm>

#include "checker/listnode.h"
#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/watching.h"
#include "isam/pool/nodechain.h"

namespace zentra {
namespace {

struct ListRule : checker::ListedOnce {
  [[nodiscard]] static bool is_sound(const isam::PageHold& page) {
    return checker::ListNode{page}.is_valid();
  }
};

std::int32_t last_node() {
  const std::int64_t nodes = common::file_size(isam::filep->index.fd) / isam::node_size();
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(nodes, 0, std::max(isam::dictp->d_nextnode(), 0)));
}

bool account_for_list(checker::UsageMap& accounted, std::int32_t last) {
  isam::NodeChain<ListRule> chain{isam::dictp->d_freedata(), {checker::ListedOnce{last_node()}}};
  while (const isam::PageHold page = chain.read()) {
    checker::ListNode{page}.for_each_entry([&](std::int32_t record) {
      if (record >= 1 && record <= last) accounted.set_bit(record);
    });
    chain.follow(page);
  }
  isam::clear_errors();
  return chain.end() == isam::ChainEnd::kLast;
}

// What an open transaction of others keeps back.
void account_for_locked(checker::UsageMap& accounted, std::int32_t last) {
  isam::RecordLocks locks(last);
  tell_missing(accounted, last, [&](std::int32_t first, std::int32_t end) {
    for (std::int32_t record = first; record <= end;) {
      const isam::LockedRecords* const locked = locks.next(record, end);
      if (locked == nullptr) return;
      const std::int32_t locked_end = std::min(locked->last, end);
      for (record = std::max(record, locked->first); record <= locked_end; ++record) {
        accounted.set_bit(record);
      }
    }
  });
}

}  // namespace

bool account_for_free(checker::UsageMap& accounted, std::int32_t last) {
  const bool is_whole = account_for_list(accounted, last);
  account_for_locked(accounted, last);
  return is_whole;
}

void tell_missing(const checker::UsageMap& accounted, std::int32_t last,
                  const std::function<void(std::int32_t, std::int32_t)>& told) {
  for (std::int32_t n = last < 1 ? 0 : accounted.previous_clear(last); n > 0;) {
    const std::int32_t used = accounted.previous_set(n);
    told(used + 1, n);
    n = used < 1 ? 0 : accounted.previous_clear(used);
  }
}

}  // namespace zentra
