// The pages of variable parts against the records that name their pieces.
#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

#include "checker/progress.h"
#include "checker/usagemap.h"
#include "common/io.h"
#include "common/sorter.h"
#include "isam/base/errors.h"
#include "isam/records/datafile.h"
#include "isam/records/varlen.h"
#include "zentra/check/deep.h"
#include "zentra/pair/readpair.h"

namespace zentra {
namespace {

using isam::dictp;

constexpr std::size_t kMemory = std::size_t{16} << 20;
// Node, slot and record, in the order in which they are sorted.
constexpr std::size_t kSlotAt = 4;
constexpr std::size_t kRecordAt = 5;
constexpr std::size_t kPieceSize = 9;

class StorageCheck {
 public:
  StorageCheck(const checker::Check& check, Collector& collector)
      : check_(check),
        collector_(collector),
        pieces_({.entry_size = kPieceSize,
                 .key_size = kPieceSize,
                 .memory = kMemory,
                 .folder = temporary_folder(),
                 .order = {}}) {}

  void run() {
    if (!gather() || pieces_.finish() != 0) return failed(errno);
    find_listed();
    next_ = pieces_.next();
    for (std::int32_t node = check_.rpgmap.next_set(1); node != 0;
         node = node == INT32_MAX ? 0 : check_.rpgmap.next_set(node + 1)) {
      check_page(node);
    }
    if (pieces_.error() != 0) return failed(pieces_.error());
    note_cut_trailer();
    note("storage.pieces-unused", "piece(s) of variable parts that no record names", unused_);
    note("storage.pieces-surplus", "record(s) with more pieces than their length takes", surplus_);
    for (const auto& [process, count] : kept_) {
      collector_.add({.kind = Entry::Kind::kNote,
                      .code = "transaction.keeps-storage",
                      .text = fmt::format("storage of {} shortened record(s) kept back by an open "
                                          "transaction of {}",
                                          count, process_text(process)),
                      .fields = {{"found", count}, {"process", std::int64_t{process}}}});
    }
    collector_.pass_over_error();
  }

 private:
  // Where the data file ends within a slot, what is missing counts as zero bytes: as no variable
  // part where the length is missing.
  void note_cut_trailer() {
    const std::int64_t size = common::file_size(isam::filep->data.fd);
    const std::int64_t record = size / isam::slot_size() + 1;
    const std::int64_t there = size % isam::slot_size() - isam::filep->geometry.reclen;
    if (there <= 0 || there >= isam::kTrailerLength + 2 || record > check_.datlast) return;
    if (!check_.datmap.tstbit(static_cast<std::int32_t>(record))) return;
    collector_.add({.kind = Entry::Kind::kNote,
                    .code = "storage.length-cut",
                    .text = fmt::format(
                        "the data file ends within record {}, before the length of its variable "
                        "part: it counts as having none; what it had stays in the storage "
                        "pages until a repair puts these in order, and then in the index of "
                        "before",
                        record),
                    .fields = {{"record", record}}});
  }

  // False: the temporary file failed.
  bool gather() {
    const std::int32_t last = std::min(check_.datlast, check_.datreal);
    checker::Progress progress("Gathering pieces", last);
    for (std::int32_t record = 1; record <= last; ++record) {
      progress.at(record);
      isam::Byte trailer[isam::kVariableTrailer] = {};
      if (isam::datainfo(record, trailer) != isam::kVariableTrailer) {
        collector_.pass_over_error();
        continue;
      }
      const std::int32_t reference = common::ldlong(trailer + isam::kTrailerReference);
      if (reference == 0) continue;
      if (!check_.datmap.tstbit(record)) {
        if (trailer[0] == isam::kRecordAbsent && !is_locked(record)) left_over(record);
        continue;
      }
      const int length = common::ldshort(trailer + isam::kTrailerLength);
      if (!add_pieces(record, reference, length)) return false;
    }
    return true;
  }

  bool add_pieces(std::int32_t record, std::int32_t reference, int length) {
    std::int64_t bytes = 0;
    isam::PieceChain chain{reference};
    while (chain.pointer() != 0) {
      const isam::PageHold page = chain.read();
      if (!page) break;
      bytes += isam::Rpage{page}.slot(chain.slot()).length;
      std::array<isam::Byte, kPieceSize> piece;
      common::stlong(page.node(), piece.data());
      piece[kSlotAt] = static_cast<isam::Byte>(chain.slot());
      common::stlong(record, piece.data() + kRecordAt);
      if (pieces_.add(piece.data()) != 0) return false;
      if (!chain.rprwalk()) break;
    }
    collector_.pass_over_error();
    if (bytes <= length) return true;
    if (const auto* lock = collector_.locks()->find(record)) {
      ++kept_[lock->process];
    } else {
      ++surplus_;
    }
    return true;
  }

  void find_listed() {
    struct Pages : checker::ListedOnce {
      [[nodiscard]] static bool is_sound(const isam::PageHold& page) {
        return isam::Rpage{page}.has_magic();
      }
    };
    listed_.reset(check_.idxlast);
    for (int page_class = 1; page_class < isam::kRpageClasses; ++page_class) {
      isam::NodeChain<Pages, isam::RpageLinks> chain{dictp->d_varfree(page_class),
                                                     {checker::ListedOnce{check_.idxlast}}};
      while (const isam::PageHold page = chain.read()) {
        listed_.set_bit(page.node());
        chain.follow(page);
      }
    }
    collector_.pass_over_error();
  }

  void check_page(std::int32_t node) {
    std::array<int, isam::rpage::kMaxSlots + 1> named{};
    for (; next_ != nullptr && common::ldlong(next_) == node; next_ = pieces_.next()) {
      if (++named[next_[kSlotAt]] >= 2) shared(node, next_);
    }
    const isam::PageHold page = isam::bfread(node);
    if (!page) return collector_.pass_over_error();
    if (!isam::Rpage{page}.has_magic()) return;
    const isam::Rpage view{page};
    int room = view.geometry().capacity - view.slot_count() * isam::rpage::kSlotSize;
    for (int i = 0; i < view.slots_in_page(); ++i) {
      const int length = view.slot(i).length;
      room -= length;
      if (length > 0 && named[static_cast<std::size_t>(i)] == 0) ++unused_;
    }
    if (room != view.free_bytes()) {
      find("storage.free-bytes",
           fmt::format("storage page {} counts {} free bytes instead of {}", node,
                       view.free_bytes(), room),
           {{"node", std::int64_t{node}},
            {"found", std::int64_t{view.free_bytes()}},
            {"expected", std::int64_t{room}}});
    }
    // A faulty list is found already.
    const int page_class = rpage_class_of(view);
    const bool has_room = page_class >= 1 && page_class < isam::kRpageClasses;
    if (check_.badrfree == checker::Verdict::kSound && has_room && !listed_.tstbit(node)) {
      find("storage.page-unlisted", fmt::format("storage page {} with room is on no list", node),
           {{"node", std::int64_t{node}}});
    }
  }

  void shared(std::int32_t node, const isam::Byte* piece) {
    const std::int64_t slot = piece[kSlotAt];
    const std::int64_t record = common::ldlong(piece + kRecordAt);
    find("storage.piece-shared",
         fmt::format("piece {} of storage page {} belongs to another record and to record {}", slot,
                     node, record),
         {{"record", record}, {"node", std::int64_t{node}}, {"slot", slot}});
  }

  void left_over(std::int32_t record) {
    find("storage.reference-left",
         fmt::format("absent record {} still refers to a variable part", record),
         {{"record", std::int64_t{record}}});
  }

  [[nodiscard]] bool is_locked(std::int32_t record) {
    return collector_.locks()->find(record) != nullptr;
  }

  void find(const char* code, std::string text, Fields fields) {
    collector_.add({.code = code,
                    .status = Status::kDamaged,
                    .text = std::move(text),
                    .fields = std::move(fields)});
  }
  void note(const char* code, const char* text, std::int64_t count) {
    if (count == 0) return;
    collector_.add({.kind = Entry::Kind::kNote,
                    .code = code,
                    .text = fmt::format("{} {}", count, text),
                    .fields = {{"found", count}}});
  }
  void failed(int system_error) {
    collector_.unfinished(system_error);
    isam::clear_errors();
  }

  const checker::Check& check_;
  Collector& collector_;
  common::Sorter pieces_;
  const isam::Byte* next_ = nullptr;
  checker::UsageMap listed_;            // pages on lists
  std::map<pid_t, std::int64_t> kept_;  // shortened records that each process keeps whole
  std::int64_t unused_ = 0;
  std::int64_t surplus_ = 0;
};

}  // namespace

void check_storage(const checker::Check& check, Collector& collector) {
  if (check.varlen) StorageCheck{check, collector}.run();
}

}  // namespace zentra
