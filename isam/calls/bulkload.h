// bulkload: records added to a pair all at once.
//
// The records go behind the last slot that the dictionary counts, as absent ones, and new trees
// into nodes behind the last one that it counts. So the pair is as it was until the last step,
// commit(): under the mark of unfinished changes the records become present, and the roots and the
// dictionary are written.
//
// Needs   the current open, exclusive and the only one of its file, entered for writing; nothing
//         unwritten
// Keeps   U1 a load that fails, or is taken back, leaves the pair as it was
//         U2 a killed process leaves it as it was, but for bytes behind what the dictionary counts;
//            in the last step it leaves the mark
//         U3 memory is bounded as that of sorting is, but when records are refused for a bit each
//            record and some bytes each refused one
// Throws  std::bad_alloc
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "isam/calls/recorditems.h"
#include "isam/tree/indexmerge.h"
#include "isam/tree/newstorage.h"

namespace isam {

class BulkLoad {
 public:
  BulkLoad(const Open& open, const Keys& keys);

  [[nodiscard]] bool belongs_to(const Open& open) const { return &open == open_; }
  // The file has so many bytes as its dictionary tells: 0, or -1 with 105 or the system's error.
  [[nodiscard]] int begin();
  // Takes a record: its number, or -1 with iserrno, and all is to be taken back.
  [[nodiscard]] std::int32_t add(ConstBytes record);
  // The next so many numbers are no record's, and become free ones: 0, or -1 as add().
  [[nodiscard]] int skip(std::int32_t count);
  // Adds the records to the pair, and tells which of them are refused: 0, or -1 with iserrno, and
  // all is to be taken back.
  [[nodiscard]] int finish(std::vector<std::int32_t>& refused);
  // Cuts off what was written, unless finish() has made it part of the pair: 0, or -1.
  int take_back();

 private:
  struct Gap {
    std::int32_t first;
    std::int32_t count;
  };

  [[nodiscard]] std::int32_t next_number() const { return first_ + count_; }
  [[nodiscard]] int check_room() const;
  [[nodiscard]] int add_slot(ConstBytes fixed);
  [[nodiscard]] int store_part(std::int32_t number, ConstBytes part);
  [[nodiscard]] int write_slots();
  [[nodiscard]] int build_indexes(Refusals& refusals);
  [[nodiscard]] int list_free(const Refusals& refusals, std::span<const std::int32_t> refused,
                              Dictionary& after);
  [[nodiscard]] std::vector<std::int32_t> without_gaps(std::span<const std::int32_t> numbers) const;
  [[nodiscard]] int commit(const Dictionary& after, const Refusals& refusals);
  [[nodiscard]] int write_last(const Dictionary& after, const Refusals& refusals, Bytes room);
  [[nodiscard]] int make_present(std::int32_t last, const Refusals& refusals, Bytes room);
  [[nodiscard]] int set_states(std::int32_t number, Bytes slots, const Refusals& refusals);
  static void free_storage(std::span<const std::int32_t> refused);

  const Open* open_;
  Keys keys_;  // those with parts
  std::deque<IndexLoad> loads_;
  NewNodes nodes_;
  NewStorage storage_{nodes_};
  // With variable length: each record's number, and what its slot is to tell of its variable part.
  // Until the last step the slots tell of none, for others may come to use them.
  common::Sorter parts_;
  std::int32_t first_;  // number
  std::int32_t count_ = 0;
  std::vector<Gap> gaps_;       // numbers of no record
  std::int64_t data_size_ = 0;  // of the files when the load began
  std::int64_t index_size_ = 0;
  std::vector<Byte> slots_;        // not written yet
  std::int32_t slots_begin_;       // number of the first of them
  std::int64_t data_written_ = 0;  // up to here at the most
  bool committed_ = false;
};

// Leaves out so many numbers before the next record of the load under way, which become free ones:
// 0, or -1 as isload().
[[nodiscard]] int skip_numbers(int isfd, std::int32_t count);

// Takes back the load that an open has under way, if any, before the open goes.
void drop_load(const Open& open);

}  // namespace isam
