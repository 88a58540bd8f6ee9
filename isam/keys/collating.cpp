#include "isam/keys/collating.h"

#include <array>

#include "isam/base/errors.h"
#include "isam/keys/keys.h"

namespace isam {
namespace {

constexpr int kTables = 7;

std::array<const Byte*, kTables> colbufs{};

// The slot of a collated type without KT_DESC, -1 for any other; KT_LOCALE has no table.
int slot_of(int type) { return type != KT_LOCALE && clchktype(type) ? (type - KT_COLL1) / 16 : -1; }

}  // namespace

bool clregister(int type, const Byte* table) {
  const int slot = slot_of(type);
  if (slot < 0) return false;
  colbufs[static_cast<std::size_t>(slot)] = table;
  return true;
}

int clkeycheck(const keydescr& k) {
  for (int i = 0; i < k.nparts; ++i) {
    const int slot = slot_of(k.part[i].type);
    if (slot >= 0 && colbufs[static_cast<std::size_t>(slot)] == nullptr) {
      return failed(kBadCollation);
    }
  }
  return 0;
}

int clcompare(int type, const Byte* a, const Byte* b, int len) {
  const int slot = slot_of(type);
  const Byte* table = slot < 0 ? nullptr : colbufs[static_cast<std::size_t>(slot)];
  if (table == nullptr) {
    failed(kBadCollation);
    return 0;
  }
  for (int i = 0; i < len; ++i) {
    const int order = int{table[a[i]]} - int{table[b[i]]};
    if (order != 0) return order < 0 ? -1 : 1;
  }
  return 0;
}

}  // namespace isam
