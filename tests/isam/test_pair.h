// test_pair: a new, empty pair in a folder of its own, open and current in the library.
#pragma once

#include <gtest/gtest.h>

#include <string>

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
  TestPair() {
    build_pair({.record_length = kLength, .keys = {}, .records = 0}, base_);
    isam::clear_errors();
    open_ = isam::allocopen();
    open_->file = isam::allocfile(base_, 0);
    isam::make_current(*open_);
    isam::filep->geometry.idxsize = 1023;
    isam::filep->geometry.reclen = isam::filep->geometry.maxreclen = kLength;
    EXPECT_EQ(isam::dictread(), 0);
  }
  TestPair(const TestPair&) = delete;
  TestPair& operator=(const TestPair&) = delete;
  ~TestPair() {
    isam::bfflush(*isam::filep);
    isam::freeopen(*open_);
  }

  [[nodiscard]] const std::string& base() const { return base_; }
  // The index file as it is, and its replacement behind the library's back.
  [[nodiscard]] Image index() const {
    isam::bfflush(*isam::filep);
    isam::dictwrite();
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
  static constexpr int kLength = 40;

  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  isam::Open* open_;
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
