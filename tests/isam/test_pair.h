// test_pair: a new, empty pair in a folder of its own, open and current in the library.
//
// Records are kept in memory and written to the data file for a verdict on the whole pair.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "isam/base/errors.h"
#include "isam/files/dictionary.h"
#include "isam/files/files.h"
#include "isam/pool/buffers.h"
#include "isam/records/freelists.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {

class TestPair {
 public:
  struct Shape {
    int node_size = 1024;
    int dup_width = 4;
    int record_length = 40;
  };

  explicit TestPair(const Shape& shape) {
    build_pair({.node_size = shape.node_size,
                .dup_width = shape.dup_width,
                .record_length = shape.record_length,
                .keys = {},
                .records = 0},
               base_);
    isam::clear_errors();
    open_ = isam::allocopen();
    open_->file = isam::allocfile(base_, 0);
    isam::make_current(*open_);
    isam::filep->geometry.idxsize = shape.node_size - 1;
    isam::filep->geometry.reclen = isam::filep->geometry.maxreclen = shape.record_length;
    EXPECT_EQ(isam::dictread(), 0);
  }
  TestPair(const TestPair&) = delete;
  TestPair& operator=(const TestPair&) = delete;
  ~TestPair() {
    isam::bfflush(*isam::filep);
    isam::freeopen(*open_);
  }

  // A new record: its number.
  std::int32_t add_record(const Image& record) {
    const std::int32_t number = isam::allocrec(isam::FreeList::kRecords);
    records_[number] = record;
    return number;
  }
  void drop_record(std::int32_t number) {
    EXPECT_EQ(isam::freerec(number, isam::FreeList::kRecords), 0);
    records_.erase(number);
  }

  // Brings both files up to date.
  void save() const {
    isam::bfflush(*isam::filep);
    isam::dictwrite();
    const auto slot = static_cast<std::size_t>(isam::filep->geometry.reclen) + 1;
    Image data(slot * static_cast<std::size_t>(isam::dictp->d_nextdata()));
    for (const auto& [number, record] : records_) {
      const auto at = data.begin() + static_cast<std::ptrdiff_t>(slot) * (number - 1);
      std::copy(record.begin(), record.end(), at);
      at[isam::filep->geometry.reclen] = isam::kRecordPresent;
    }
    write_file(base_ + ".dat", data);
  }

  // What is wrong with the pair as a whole.
  [[nodiscard]] std::vector<std::string> problems() const {
    save();
    return walk_pair(base_).problems;
  }

  // The index file as it is, and its replacement behind the library's back.
  [[nodiscard]] Image index() const {
    save();
    return read_file(base_ + ".idx");
  }
  void replace_index(const Image& bytes) const {
    isam::bfflush(*isam::filep);
    isam::bfignor(*isam::filep);
    write_file(base_ + ".idx", bytes);
    isam::clear_errors();
    isam::dictread();
  }

 private:
  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  isam::Open* open_;
  std::map<std::int32_t, Image> records_;
};

// Leaves one node to take, or none, while it lives. The free list must be empty.
class ScarceNodes {
 public:
  explicit ScarceNodes(bool one) : last_(isam::dictp->d_nextnode()) {
    if (one) {
      spare_ = isam::allocrec(isam::FreeList::kNodes);
      isam::bfgetclr(spare_).set_frame(isam::kEntriesOffset, isam::kIndexFreeNode,
                                       isam::kFreeLevel);
      last_ = isam::dictp->d_nextnode();
    }
    EXPECT_EQ(isam::dictp->d_freenode(), 0);
    isam::dictp->set_d_freenode(spare_);
    isam::dictp->set_d_nextnode(INT32_MAX);
  }
  ScarceNodes(const ScarceNodes&) = delete;
  ScarceNodes& operator=(const ScarceNodes&) = delete;
  ~ScarceNodes() {
    const bool unused = isam::dictp->d_freenode() == spare_ && spare_ != 0;
    isam::dictp->set_d_freenode(0);
    isam::dictp->set_d_nextnode(last_);
    if (unused) isam::freerec(spare_, isam::FreeList::kNodes);
  }
  // Whether nothing has been taken, or all has been given back.
  [[nodiscard]] bool untouched() const { return isam::dictp->d_freenode() == spare_; }

 private:
  std::int32_t last_;
  std::int32_t spare_ = 0;
};

}  // namespace testing_support
