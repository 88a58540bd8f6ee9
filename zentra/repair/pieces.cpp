#include "zentra/repair/pieces.h"

#include "isam/records/datafile.h"
#include "isam/records/varlen.h"
#include "zentra/pair/trailer.h"

namespace zentra {

std::set<std::int32_t> pieces_of_others(const checker::Check& check, const BadRecords& bad,
                                        const std::set<std::int32_t>& pieces) {
  std::set<std::int32_t> taken;
  auto next_bad = bad.cbegin();
  for (std::int32_t record = check.datmap.next_set(1); record != 0;
       record = record == INT32_MAX ? 0 : check.datmap.next_set(record + 1)) {
    while (next_bad != bad.cend() && next_bad->record < record) ++next_bad;
    if (next_bad != bad.cend() && next_bad->record == record) continue;
    isam::Byte trailer[isam::kVariableTrailer] = {};
    if (isam::datainfo(record, trailer) != isam::kVariableTrailer) continue;
    isam::PieceChain chain{reference_of(trailer)};
    while (chain.pointer() != 0) {
      if (pieces.contains(chain.pointer())) taken.insert(chain.pointer());
      const isam::PageHold page = chain.read();
      if (!page || !chain.rprwalk()) break;
    }
  }
  return taken;
}

}  // namespace zentra
