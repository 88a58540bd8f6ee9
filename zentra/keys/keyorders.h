// keyorders: which orders the neighbours in a tree are in, for each place in their keys.
//
// Two neighbours tell something about the part that holds their first differing byte, wherever it
// begins and ends: its type cannot order them the other way round.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "isam.h"
#include "isam/keys/keys.h"
#include "isam/tree/items.h"

namespace zentra {

// Bytes of the key, from `from` up to `end`.
struct KeyRun {
  int from;
  int end;
  int start;  // of the first byte in the record
};

class KeyOrders {
 public:
  KeyOrders(const keydescr& layout, std::vector<KeyRun> runs);

  // The next item of the tree: false when the layout cannot be right, because of equal keys.
  [[nodiscard]] bool next(const isam::Item& item);

  // The types, KT_DESC among them, that a part of these bytes of the key can have.
  [[nodiscard]] std::vector<int> types_of(int from, int end) const;
  // Whether a run may have an order that no value shows: one of the application's.
  [[nodiscard]] bool may_be_collated(std::size_t run) const { return collated_[run]; }
  // Whether the bytes have always been characters.
  [[nodiscard]] bool is_text(int from, int end) const;
  // Whether each first of several equal keys mostly has the number 0, as the library gives it.
  [[nodiscard]] bool numbers_are_regular() const { return 2 * first_zero_ >= firsts_; }
  [[nodiscard]] bool numbers_are_all_regular() const { return first_zero_ == firsts_; }
  [[nodiscard]] bool repeats() const { return repeats_; }
  // Items that could have been stored in fewer bytes under the layout.
  [[nodiscard]] bool is_badly_pressed() const { return 8 * badly_pressed_ > items_; }

 private:
  struct Number {
    int type;
    int length;
    isam::KeyOrder order;
  };
  struct Both {
    bool ascending = true;
    bool descending = true;

    void note(int order);
  };

  void note_bytes(const isam::Item& item);
  void compare(const isam::Item& item, int at);

  isam::ItemLayout layout_;
  int keylen_;
  std::vector<KeyRun> runs_;
  std::array<Number, 4> numbers_;
  std::vector<Both> bytes_;                  // by the place of the first differing byte
  std::array<std::vector<Both>, 4> orders_;  // of each of numbers_, by the place of its first byte
  std::vector<bool> text_;
  std::vector<bool> collated_;  // by run
  bool repeats_ = false;
  std::int64_t items_ = 0;
  std::int64_t firsts_ = 0;
  std::int64_t first_zero_ = 0;
  std::int64_t badly_pressed_ = 0;
  isam::Item before_{};
};

}  // namespace zentra
