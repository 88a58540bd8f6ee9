// recordmatch: which records of two pairs are the same, and which are not.
//
//   1. Both data files are read in their own order. Two records that are the same and have the same
//      number cancel each other: of two copies of a pair nothing is left then.
//   2. What is left of each pair is sorted by key and, within a key, by a digest of what is
//      compared; then both are read at the same time. No index is walked, so that a damaged one
//      does not matter.
//
// Without a key a record is the one with the same number, and the first step tells all.
//
// Needs   two pairs that are held still
// Keeps   memory for two sorters; of records with equal keys some thousand are remembered
// Gives   differences in the order of the key. Records with equal keys are compared as sets, in
//         which a record may be several times
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "common/digest.h"
#include "common/sorter.h"
#include "isam/keys/keys.h"
#include "isam/keys/sortkey.h"
#include "zentra/diff/comparedfields.h"
#include "zentra/diff/slotblock.h"
#include "zentra/diff/twopairs.h"

namespace zentra {

// What hears of the differences. Numbers of records are those of their pair.
class Differences {
 public:
  virtual ~Differences() = default;
  virtual void removed(std::int32_t a) = 0;
  virtual void added(std::int32_t b) = 0;
  virtual void changed(std::int32_t a, std::int32_t b) = 0;
  // A record that could not be compared, and why.
  virtual void left_out(int side, std::int32_t number, const char* why) = 0;
  // Whether no more need be told.
  [[nodiscard]] virtual bool is_enough() const = 0;

 protected:
  Differences() = default;
  Differences(const Differences&) = default;
  Differences& operator=(const Differences&) = default;
};

// How records are told apart.
struct Order {
  // In both pairs; none: by their numbers.
  std::optional<keydescr> key;
};

class RecordMatch {
 public:
  RecordMatch(TwoPairs& pairs, const ComparedFields& fields, const Order& order,
              Differences& differences);

  // 0, or the errno of what failed while sorting.
  [[nodiscard]] int run();
  [[nodiscard]] std::int64_t equal() const { return equal_; }
  // Records of a pair that are present.
  [[nodiscard]] std::int64_t present(int side) const { return present_[index(side)]; }

 private:
  enum Flag : isam::Byte {
    kUnread = 1,   // its variable part cannot be read
    kDoubtful = 2  // the slot with its number in the other pair cannot be read
  };
  // A record that has been put aside, as its sorter has it: behind key and digest.
  struct Entry {
    std::int32_t number;
    isam::Byte flags;
  };

  static std::size_t index(int side) { return static_cast<std::size_t>(side); }

  // The first step.
  void compare_slots();
  [[nodiscard]] bool count_alike(std::int32_t first, std::int32_t end);
  void compare_slot(std::int32_t number);
  [[nodiscard]] bool are_equal(const Slot& a, const Slot& b);
  [[nodiscard]] bool have_equal_storage(isam::ConstBytes a, isam::ConstBytes b);
  [[nodiscard]] bool take_record(int side, isam::ConstBytes slot);
  void tell_by_number(std::int32_t number, const Slot& a, const Slot& b);
  void put_aside(int side, std::int32_t number, const Slot& slot, bool is_doubtful);
  [[nodiscard]] bool is_storage_alike();

  // The second step.
  void merge();
  void next(int side);
  [[nodiscard]] int compare_keys(const isam::Byte* a, const isam::Byte* b) const;
  [[nodiscard]] bool belongs(int side) const;
  void gather_group();
  void leave(int side);
  void end_group();
  void tell_pair(const Entry& a, const Entry& b);
  void tell_alone(int side, const Entry& entry);

  TwoPairs& pairs_;
  const ComparedFields& fields_;
  Order order_;
  std::optional<isam::SortKey> sort_key_;  // none where a locale orders
  std::optional<isam::KeyOrder> key_order_;
  std::size_t key_size_ = 0;
  Differences& differences_;
  common::Digest digest_;
  bool shares_storage_ = false;  // equal references lead to equal bytes
  std::int64_t equal_ = 0;
  std::array<std::int64_t, 2> present_{};
  int error_ = 0;

  std::array<SlotBlock, 2> blocks_;
  std::array<std::vector<isam::Byte>, 2> records_;  // taken last
  std::vector<isam::Byte> compared_[2];
  std::vector<isam::Byte> entry_;
  std::array<std::unique_ptr<common::Sorter>, 2> sorters_;
  std::array<const isam::Byte*, 2> at_{};
  std::vector<isam::Byte> group_key_;
  std::array<std::vector<Entry>, 2> left_;  // of the group, without equals
};

// Reads a record of a slot: false when its variable part cannot be read, `record` has the rest
// then.
[[nodiscard]] bool read_record(Side& side, isam::ConstBytes slot, std::vector<isam::Byte>& record);
// The same by its number; false also where there is none, `record` is empty then.
[[nodiscard]] bool read_record(Side& side, std::int32_t number, std::vector<isam::Byte>& record);

}  // namespace zentra
