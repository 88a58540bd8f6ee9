#include "isam/calls/scanahead.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "isam/base/errors.h"
#include "isam/calls/call.h"
#include "isam/calls/explain.h"
#include "isam/calls/filelocale.h"
#include "isam/calls/process.h"
#include "isam/calls/reading.h"
#include "isam/calls/recordcalls.h"
#include "isam/files/files.h"
#include "isam/tree/treenode.h"

namespace isam {
namespace {

constexpr int kStepsBeforeCopying = 2;

}  // namespace

bool ScanAhead::has_room() {
  if (records_) return true;
  const auto length = static_cast<std::size_t>(filep->geometry.maxreclen);
  room_ = std::min(kMostBytes / length, kMost);
  if (room_ >= kLeast) records_.reset(new (std::nothrow) Byte[room_ * length]);
  return records_ != nullptr;
}

// Keeps a copy of the leaf's items, from which settle() makes the position: false when the leaf
// cannot be read.
bool ScanAhead::keep_leaf(const Cursor& cursor) {
  const KeepError keep;
  const TreeNode node{cursor.bt.leaf().node};
  if (!node) return false;
  leaf_length_ = node.area().size();
  common::copy_bytes(node.area(), leaf_.data());
  return true;
}

// Puts the numbers of the records that follow into numbers_, as far as they can be told: how many.
std::size_t ScanAhead::gather(const Cursor& cursor, Direction direction) {
  const std::size_t most = std::min(wanted_, room_);
  if (openp->key.nparts > 0) {
    if (!LeafRun::may_follow(cursor) || !keep_leaf(cursor)) return 0;
    run_.gather(cursor, openp->key, direction, most, leaf());
    std::copy_n(run_.records().data(), run_.records().size(), numbers_.data());
    return run_.records().size();
  }
  const std::int32_t here = cursor.bt.item.recptr;
  const bool forward = direction == Direction::kNext;
  const std::int32_t left = forward ? dictp->d_nextdata() - here : here - 1;
  const auto count = static_cast<std::size_t>(std::clamp(left, 0, static_cast<std::int32_t>(most)));
  for (std::size_t i = 0; i < count; ++i) {
    const auto distance = static_cast<std::int32_t>(i) + 1;
    numbers_[i] = here + (forward ? distance : -distance);
  }
  return count;
}

void ScanAhead::fill(Cursor& cursor, ReadMode mode) {
  count_ = given_ = 0;
  const bool in_tree = openp->key.nparts > 0;
  // Batch mode counts the calls, so each of them has to enter.
  if (cursor.bt.ends != kOnItem || batchflag != 0) return;
  if ((!is_alone() && !shows_writes(filep->index)) || !has_room()) return;
  if (in_tree && !LeafRun::tells_same_keys(ItemLayout{openp->key})) return;
  const std::size_t found = gather(cursor, direction_of(mode));
  count_ = dataread_many({numbers_.data(), found}, records_.get(), lengths_.data());
  if (count_ == 0) return;
  as_of_.note(*filep);
  for (std::size_t i = 0; i < count_; ++i) {
    same_key_[i] = in_tree && run_.has_same_key(openp->key, i, leaf());
  }
}

bool ScanAhead::serves(OpenPair& file) const { return given_ < count_ && as_of_.stands(file); }

void ScanAhead::take(char* record) {
  const std::size_t i = given_++;
  const auto stride = static_cast<std::size_t>(filep->geometry.maxreclen);
  std::memcpy(record, records_.get() + i * stride, static_cast<std::size_t>(lengths_[i]));
  isrecnum = numbers_[i];
  isreclen = lengths_[i];
  if (same_key_[i]) {
    set_status("0202");
  } else {
    set_status("0000");
  }
}

void ScanAhead::settle(Open& open) {
  if (given_ < count_) {
    wanted_ = kLeast;
  } else if (count_ == wanted_) {
    wanted_ = std::min(2 * wanted_, kMost);
  }
  if (given_ > 0) {
    const KeepError keep;
    Cursor& cursor = open.cursor;
    cursor.bt = open.position;
    const std::size_t last = given_ - 1;
    if (open.key.nparts == 0) {
      cursor.bt.item.recptr = numbers_[last];
      btnumber(cursor, numbers_[last]);
    } else if (run_.stand_on(cursor, open.key, last, leaf()) == 0) {
      take_found_item(cursor);
    } else {
      cursor.bt.state = 0;  // the leaf is damaged: the open has no position
    }
    open.position = cursor.bt;
  }
  count_ = given_ = 0;
}

namespace {

// Gives the next record where that needs no entry. False where it does: then no record is taken and
// no position has moved.
bool read_copy(int isfd, char* record, int mode) {
  know_process();
  Open* const open = open_of(isfd);
  if (record == nullptr || open == nullptr || open->kept || batchflag != 0) return false;
  const OfScan& scan = open->scan;
  if (scan.mode != mode || !scan.ahead || !scan.ahead->serves(*open->file)) return false;
  make_current(*open);
  if (check_locale() != 0) return false;
  note_use();
  clear_errors();
  scan.ahead->take(record);
  return true;
}

// How many steps in this direction the last calls of an open were.
int steps_before(int isfd, int mode) {
  const Open* const open = open_of(isfd);
  return open != nullptr && open->scan.mode == mode ? open->scan.steps : 0;
}

// Notes that the current open has read a record by a step, after so many others in a row, and
// copies the records of the next ones when the row is long enough.
void note_step(Cursor& cursor, int mode, int steps_before) {
  OfScan& scan = openp->scan;
  scan.mode = mode;
  scan.steps = std::min(steps_before + 1, kStepsBeforeCopying);
  if (scan.steps < kStepsBeforeCopying) return;
  if (ScanAhead* const ahead = scan_ahead()) ahead->fill(cursor, static_cast<ReadMode>(mode));
}

int step_entering(int isfd, char* record, int mode) {
  const bool after_end = iserrno == kEndOfFile;  // of the call before
  const int steps = steps_before(isfd, mode);    // asked first: entering ends the row
  Call call{isfd, {.access = Access::kToRead, .shared = true, .holds_on = true}};
  if (!call) return refused_access('7');
  ReadRequest request{};
  const ReadOutcome outcome = read_asked(call.cursor(), record, mode, after_end, request);
  if (outcome == ReadOutcome::kRead && !request.lock) note_step(call.cursor(), mode, steps);
  return call.end();
}

}  // namespace

ScanAhead* scan_ahead() {
  OfScan& scan = openp->scan;
  try {
    if (!scan.ahead) scan.ahead = std::make_shared<ScanAhead>();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  return scan.ahead.get();
}

int read_step(int isfd, char* record, int mode) {
  if (read_copy(isfd, record, mode)) return 0;
  return noted("isread", isfd, step_entering(isfd, record, mode));
}

void leave_scan(Open& open) {
  open.scan.steps = 0;
  if (!open.scan.ahead) return;
  open.scan.ahead->settle(open);
  open.scan.ahead->portions.forget();
}

}  // namespace isam
