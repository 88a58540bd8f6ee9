// data_check: which data records are present.
//
// Gives   datmap and data_misfits; with variable length also rpgmap, the nodes that hold pieces
// Needs   the maps cleared by the dictionary check
#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

#include "checker/checks.h"
#include "checker/listnode.h"
#include "checker/progress.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/files/files.h"
#include "isam/pool/nodechain.h"
#include "isam/records/datafile.h"
#include "isam/records/varlen.h"

namespace checker {
namespace {

using isam::Byte;
using isam::dictp;

// Marks every page of a record's chain in rpgmap; false for a chain that cannot be followed.
bool mark_chain(Check& check, std::int32_t pointer) {
  isam::PieceChain chain{pointer};
  while (chain.pointer() != 0) {
    const std::int32_t node = isam::rpage::pointer_node(chain.pointer());
    if (chain.is_too_long() || node < 1 || node > check.idxlast) {
      isam::failed_unless_set(isam::kCorrupted);
      return false;
    }
    check.rpgmap.set_bit(node);
    const isam::PageHold page = chain.read();
    if (!page || !chain.rprwalk()) return false;
  }
  return true;
}

// Marks the pages that an absent record keeps for an open transaction.
void mark_kept_storage(Check& check, std::int32_t record) {
  const isam::KeepError keep;
  isam::Byte trailer[isam::kVariableTrailer] = {};
  if (isam::datainfo(record, trailer) != isam::kVariableTrailer) return;
  const std::int32_t reference = common::ldlong(trailer + isam::kTrailerReference);
  if (reference == 0 || check.listener.locks()->find(record) == nullptr) return;
  static_cast<void>(mark_chain(check, reference));
}

// Marks the pages of a record that is present, and reads it into `buffer`: its length. -1 for an
// absent record; -1 with iserrno for one that cannot be read.
int varread(Check& check, std::int32_t record, isam::Bytes buffer) {
  isam::Byte trailer[isam::kVariableTrailer] = {};
  if (isam::datainfo(record, trailer) != isam::kVariableTrailer ||
      trailer[0] != isam::kRecordPresent) {
    return -1;
  }
  if (!mark_chain(check, common::ldlong(trailer + isam::kTrailerReference))) return -1;
  return isam::dataread(record, buffer);
}

// How many absent records are asked for their state: where the record length is wrong, some of the
// first show it.
constexpr int kLooks = 1000;

// Whether a record's state byte says neither present nor absent: then the slots of the file lie
// elsewhere.
bool has_no_state(std::int32_t record) {
  const isam::KeepError keep;
  isam::Byte trailer[isam::kVariableTrailer] = {};
  return isam::datainfo(record, trailer) > 0 && trailer[0] != isam::kRecordPresent &&
         trailer[0] != isam::kRecordAbsent;
}

// The states of records of fixed length, asked for in ascending order. The file is read in large
// pieces: the check of a record needs no copy of it, only that its bytes can be read.
class States {
 public:
  // The state of record k; none where its piece of the file cannot be read: then the record is to
  // be read by itself, which tells why.
  std::optional<Byte> of(std::int32_t k) {
    const auto slot = static_cast<std::int64_t>(isam::slot_size());
    const std::int64_t begin = (k - 1) * slot;
    const std::int64_t end = begin + slot;
    if (end > end_ && begin >= unreadable_until_) read(begin);
    if (end > end_) return std::nullopt;
    return piece_[static_cast<std::size_t>(end - 1 - begin_)];
  }

 private:
  static constexpr std::size_t kPiece = std::size_t{64} * 1024;

  void read(std::int64_t begin) {
    const isam::KeepError keep;
    const ssize_t got = common::read_at(isam::filep->data.fd, piece_, begin);
    begin_ = begin;
    end_ = begin + std::max<ssize_t>(got, 0);
    if (got < 0) unreadable_until_ = begin + static_cast<std::int64_t>(kPiece);
  }

  std::vector<Byte> piece_ = std::vector<Byte>(kPiece);
  std::int64_t begin_ = 0;  // of the piece in the file
  std::int64_t end_ = 0;
  std::int64_t unreadable_until_ = 0;  // before it no piece is tried again
};

// Reads a record: its length; -1 for an absent one; -1 with iserrno or errno for one that cannot be
// read.
int read_record(Check& check, States& states, std::int32_t record, isam::Bytes buffer) {
  if (check.varlen) return varread(check, record, buffer);
  const auto state = states.of(record);
  errno = 0;
  if (!state) return isam::dataread(record, buffer);
  return *state == isam::kRecordPresent ? isam::filep->geometry.reclen : -1;
}

void check_records(Check& check) {
  int looks = 0;
  const bool may_be_locked = check.listener.locks() != nullptr;
  const isam::Bytes buffer = isam::temprecord();
  States states;
  const std::int32_t last = std::min(check.datlast, check.datreal);
  Progress progress("Checking data records", last);
  for (std::int32_t record = 1; record <= last; ++record) {
    progress.at(record);
    errno = 0;
    const int length = read_record(check, states, record, buffer);
    if (length > 0) {
      check.datmap.set_bit(record);
    } else if (iserrno != 0 || errno != 0) {
      // iserrno stays set: behind a record that failed, absence is no longer certain, and each
      // record that reads as absent is told as bad too.
      check.data_misfits = true;
      check.note_system_error();
      check.found(Code::kBadRecord, {.record = record});
    } else {
      if (check.varlen && may_be_locked) mark_kept_storage(check, record);
      if (++looks <= kLooks && has_no_state(record)) check.data_misfits = true;
    }
  }
}

// The rule of the list of free records, before any other use of its nodes is known.
struct ListRule : ListedOnce {
  [[nodiscard]] static bool is_sound(const isam::PageHold& page) {
    return ListNode{page}.is_valid();
  }
};

// Takes every record as present but those that the free list names and those behind the highest
// number in use.
void take_records_from_free_list(Check& check) {
  if (check.datlast >= 1) check.datmap.setmap(1, check.datlast);
  const std::int32_t highest = std::max(dictp->d_nextdata(), 0);
  for (std::int32_t record = highest; record < check.datlast; ++record) {
    check.datmap.clr_bit(record + 1);
  }
  isam::NodeChain<ListRule> chain{dictp->d_freedata(), {ListedOnce{check.idxlast}}};
  while (const isam::PageHold page = chain.read()) {
    ListNode{page}.for_each_entry([&check](std::int32_t record) {
      if (record >= 1 && record <= check.datlast) check.datmap.clr_bit(record);
    });
    chain.follow(page);
  }
  // Of a link that leads astray ckdfree() will tell.
  if (chain.end() == isam::ChainEnd::kUnreadable) check.report_unreadable_node();
  if (chain.end() == isam::ChainEnd::kMalformed) {
    check.found(Code::kFreeRecordsUnknown, {.node = chain.node()});
  }
}

}  // namespace

void ckdata(Check& check) {
  if (check.options.iflag != 0 && !check.varlen) {
    take_records_from_free_list(check);
    return;
  }
  if (check.options.iflag != 0) check.listener.begins(Pass::kDataAllTheSame);
  check.listener.begins(Pass::kData);
  check_records(check);
}

}  // namespace checker
