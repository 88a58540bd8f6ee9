#include "zentra/transfer/raworder.h"

#include <string>
#include <vector>

#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/keys/keys.h"
#include "isam/tree/btree.h"
#include "zentra/transfer/rawtext.h"

namespace zentra {
namespace {

using isam::dictp;

constexpr std::size_t kNumbersALine = 64;

// The records of an index behind the first that has a lower number than the one before it with the
// same key: put last, one after another, they stand as they do. False: the index is damaged.
bool walk_displaced(const keydescr& k, const std::function<void(std::int32_t)>& found) {
  isam::Cursor cursor;
  const isam::KeyOrder order{k};
  if (isam::btposition(cursor, k, isam::Edge::kFirst) != 0) return false;
  isam::Item last;
  bool has_descended = false;
  for (std::int64_t met = 0; (cursor.bt.ends & isam::kAfterLast) == 0; ++met) {
    const isam::Item& item = cursor.treeitem;
    if (met >= dictp->d_nextdata()) return false;
    const bool same = met > 0 && isam::itcompare(last, item, order) == 0;
    has_descended = same && (has_descended || item.recptr < last.recptr);
    if (has_descended) found(item.recptr);
    last = item;
    if (isam::btmove(cursor, k, isam::Direction::kNext) != 0) return false;
  }
  return true;
}

}  // namespace

int put_raw_orders(const PairShape& shape, const std::function<void(std::string_view lines)>& put) {
  for (std::size_t i = 0; i < shape.keys.size(); ++i) {
    const keydescr& k = shape.keys[i];
    if ((k.flags & KF_DUPS) == 0 || k.nparts == 0) continue;
    const int index = static_cast<int>(i) + 1;
    std::vector<std::int32_t> records;
    const auto put_line = [&] {
      std::string line;
      if (!records.empty()) put_raw_order(index, records, line);
      if (!line.empty()) put(line);
      records.clear();
    };
    const bool is_whole = walk_displaced(k, [&](std::int32_t record) {
      records.push_back(record);
      if (records.size() == kNumbersALine) put_line();
    });
    put_line();
    isam::clear_errors();
    if (!is_whole) return index;
  }
  return 0;
}

}  // namespace zentra
