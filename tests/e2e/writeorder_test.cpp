// In which order a call writes what it changed of a pair that other processes use.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>
#include <vector>

#include "common/bytes.h"
#include "common/io.h"
#include "isam/base/format.h"
#include "tests/e2e/sessions.h"

namespace testing_support {
namespace {

constexpr int kStored = 1023;  // size of a node as the dictionary has it
constexpr int kSlotCount = 21;

struct Index {
  ino_t file;
  off_t size;  // before the call
};
Index index_now{};
std::string written;  // the kinds of what one call has written; neighbours of one kind count once

bool is_listed(const Byte* node) {
  return node[isam::node_type_offset(kStored)] >= isam::kIndexFreeNode &&
         node[isam::node_level_offset(kStored)] == isam::kFreeLevel;
}

// What became of the slots of a storage page: "less" where one is free now, "node" where one is
// new. Others were written anew in their place, which may be done at any time.
std::string kind_of_page(const Byte* before, const Byte* now) {
  const auto length = [](const Byte* page, int slot) {
    return slot < page[kSlotCount] ? common::ldword(page + kStored - 6 - 4 * slot) : 0;
  };
  std::string kind;
  for (int slot = 0; slot < std::max(before[kSlotCount], now[kSlotCount]); ++slot) {
    const bool was_used = length(before, slot) != 0;
    const bool is_used = length(now, slot) != 0;
    if (was_used && !is_used) return "less ";
    if (!was_used && is_used) kind = "node ";
  }
  return kind;
}

std::string kind_of_node(const Byte* before, const Byte* now) {
  const auto type_of = [](const Byte* node) { return node[isam::node_type_offset(kStored)]; };
  const bool was_page = type_of(before) == isam::kStoragePage;
  if (!is_listed(now)) return was_page ? kind_of_page(before, now) : "node ";
  if (was_page) return "given-up ";
  return type_of(now) == isam::kServiceNode ? "numbers " : "nodes ";
}

std::string kind_of(int fd, const Byte* bytes, off_t offset) {
  struct stat file {};
  ::fstat(fd, &file);
  if (file.st_ino != index_now.file) return offset >= file.st_size ? "room " : "record ";
  if (offset == 0) return "dictionary ";
  if (offset >= index_now.size) return "new ";
  Byte before[kStored + 1];
  if (::pread(fd, before, sizeof before, offset) != sizeof before) return "beyond ";
  return kind_of_node(before, bytes);
}

ssize_t note_write(int fd, const void* from, std::size_t count, off_t offset) {
  const std::string kind = kind_of(fd, static_cast<const Byte*>(from), offset);
  if (!written.ends_with(kind)) written += kind;
  return ::pwrite(fd, from, count, offset);
}

// A call that removes a record writes it first, and gives its number back last.
const std::regex kOfAChange(
    "(room )?(new )?(numbers )?(nodes )?dictionary (node )?(record )?(less |given-up )*(dictionary "
    ")?");
const std::regex kOfADelete(
    "(new )?(nodes )?dictionary record (node )?(less |given-up )*(numbers )?(dictionary )?");

class WriteOrder : public testing::TestWithParam<bool> {};

TEST_P(WriteOrder, IsTheSafeOne) {
  const TempFolder folder;
  const std::string base = folder / "pair";
  build_pair_of(base, GetParam(), 300);
  Session session{base, GetParam()};
  ASSERT_GE(session.open(ISINOUT | ISMANULOCK), 0);
  std::string met;
  const auto call = [&](const Row& row, auto change, const std::regex& order) {
    struct stat index {};
    ASSERT_EQ(::stat((base + ".idx").c_str(), &index), 0);
    index_now = {index.st_ino, index.st_size};
    written.clear();
    ASSERT_EQ(session.put(row, change), 0) << row.id;
    EXPECT_TRUE(std::regex_match(written, order)) << row.id << ": " << written;
    met += written + '\n';
  };
  common::system_calls().pwrite = note_write;
  for (int id = 1; id <= 300; id += 2) call({id}, ::isdelete, kOfADelete);
  for (int id = 2; id <= 300; id += 2) call({id, id % 5, id}, ::isrewrite, kOfAChange);
  for (int id = 301; id <= 700; ++id) call({id, id % 7, id}, ::iswrite, kOfAChange);
  common::system_calls().pwrite = ::pwrite;
  ASSERT_EQ(::isclose(session.isfd), 0);
  // All neighbours in the order have been met.
  std::vector<const char*> pairs = {"room new",        "new numbers",     "numbers dictionary node",
                                    "node record",     "record node",     "node numbers",
                                    "node dictionary", "nodes dictionary"};
  if (GetParam())
    pairs = {"numbers nodes", "record less", "less numbers", "less dictionary",
             "given-up numbers dictionary"};
  for (const char* pair : pairs) EXPECT_NE(met.find(pair), met.npos) << pair << '\n' << met;
}

INSTANTIATE_TEST_SUITE_P(Pairs, WriteOrder, testing::Bool(),
                         [](const auto& test) { return test.param ? "varying" : "fixed"; });

}  // namespace
}  // namespace testing_support
