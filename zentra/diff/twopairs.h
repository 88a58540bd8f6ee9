// twopairs: two pairs that are open at the same time, each held still at one moment.
//
//   TwoPairs pairs;
//   if (!pairs.open(a, b, wait)) return pairs.why();
//   pairs[0].use();                                     // the library's current file is the first
//
// Keeps   neither lock is held while the other one is waited for, so that no order in which others
//         take them can make all of them wait for each other
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "zentra/pair/readpair.h"

namespace zentra {

struct Side {
  std::string name;
  ReadPair pair;
  isam::Geometry shape;
  std::int32_t last = 0;  // the highest record number
  int data = -1;          // descriptors
  int index = -1;
  std::vector<keydescr> keys;     // in the order of the indexes
  bool keys_are_damaged = false;  // there may be more

  void use() { pair.make_current(); }
  [[nodiscard]] std::int64_t slot_size() const {
    return shape.reclen + (shape.varlen ? isam::kVariableTrailer : isam::kFixedTrailer);
  }
};

class TwoPairs {
 public:
  // False: why() tells.
  [[nodiscard]] bool open(const std::string& a, const std::string& b,
                          std::chrono::milliseconds wait);
  [[nodiscard]] Side& operator[](int side) { return sides_[static_cast<std::size_t>(side)]; }
  // Names the pair that was refused.
  [[nodiscard]] const std::string& why() const { return why_; }
  // Whether both names lead to one pair: then only the first is open.
  [[nodiscard]] bool are_one() const { return are_one_; }
  void let_go();

 private:
  [[nodiscard]] bool lock(std::chrono::milliseconds wait);
  bool refuse(const Side& side, const std::string& why);
  bool refuse(const Side& side) { return refuse(side, side.pair.why()); }

  std::array<Side, 2> sides_;
  std::string why_;
  bool are_one_ = false;
};

}  // namespace zentra
