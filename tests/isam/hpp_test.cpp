// The C++ layer of isam.hpp: what it adds to the calls under it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "isam.hpp"
#include "tests/support/child_process.h"
#include "tests/support/run_program.h"

namespace zentra {
namespace {

using Numbers = std::vector<int>;

constexpr Text<0, 4> kName;
constexpr Int32<4> kId;
constexpr Double<8> kAmount;
constexpr Int16<16> kRank;
constexpr Float<18> kShare;
constexpr int kLength = 22;

constexpr Key kById = Key::of(kId);
constexpr Key kByName =
    Key::unique().text(0, 4).double_number(8).integer(16).descending().duplicates().compressed();
static_assert(kByName.parts().size() == 3 &&
              kByName.description().part[2].type == KT_INT + KT_DESC);
static_assert(std::ranges::input_range<Range>);

class Hpp : public testing::Test {
 protected:
  // Ids 1 to 7, added in another order; names, amounts and ranks repeat.
  File build() {
    File file = File::build(name(), kLength, kById, Locking::kExclusive);
    file.add_index(kByName);
    struct Row {
      int id;
      const char* name;
      double amount;
      std::int16_t rank;
    };
    for (const Row& row : {Row{3, "b", -0.0, 1},
                           {1, "a", 1.5, 2},
                           {5, "b", 0.0, 9},
                           {2, "b", -7.25, 1},
                           {7, "cc", 2.0, 5},
                           {4, "b", 3.0, 1},
                           {6, "b", 0.0, 9}}) {
      Record record = file.blank();
      record.set(kName, row.name).set(kId, row.id).set(kAmount, row.amount).set(kRank, row.rank);
      EXPECT_EQ(file.add(record.set(kShare, 0.5F)), Outcome::kDone);
    }
    return file;
  }
  [[nodiscard]] std::string name() const { return folder_ / "pair"; }

  testing_support::TempFolder folder_;
};

Numbers ids(Range range) {
  Numbers all;
  for (const auto& record : range) all.push_back(record.get(kId));
  return all;
}

TEST_F(Hpp, FieldsKeepTheirValuesAndTheirBounds) {
  Record record(kLength);
  EXPECT_EQ(record.get(kName), "");
  record.set(kName, "a b").set(kId, INT32_MIN).set(kAmount, -1e300).set(kRank, std::int16_t{-2});
  record.set(kShare, 0.125F);
  EXPECT_EQ(record.get(kName), "a b");
  EXPECT_EQ(record.get(kId), INT32_MIN);
  EXPECT_EQ(record.get(kAmount), -1e300);
  EXPECT_EQ(record.get(kRank), -2);
  EXPECT_EQ(record.get(kShare), 0.125F);
  EXPECT_THROW(record.set(kName, "abcde"), std::length_error);
  record.resize(kLength - 1);
  EXPECT_THROW(static_cast<void>(record.get(kShare)), std::out_of_range);
  EXPECT_THROW(record.set(Text<30, 4>{}, ""), std::out_of_range);
}

TEST_F(Hpp, RangesGoThroughWhatTheySay) {
  File file = build();
  const Range by_name = file.by(kByName);
  const std::pair<Range, Numbers> cases[] = {
      {file.by(kById), {1, 2, 3, 4, 5, 6, 7}},
      {file.by(kById).backwards(), {7, 6, 5, 4, 3, 2, 1}},
      {file.by(kById).from(6), {6, 7}},
      {file.by(kById).from(8), {}},
      {file.by(kById).from(8).backwards(), {7, 6, 5, 4, 3, 2, 1}},
      {file.by(kById).from(0).backwards(), {}},
      {file.by(kById).equal(4), {4}},
      {file.by(kById).equal(4).backwards(), {4}},
      {file.by(kById).equal(9).backwards(), {}},
      {file.by(Key::record_order()), {3, 1, 5, 2, 7, 4, 6}},
      {file.by(Key::record_order()).backwards(), {6, 4, 7, 2, 5, 1, 3}},
      {by_name, {1, 2, 5, 6, 3, 4, 7}},
      {by_name.from("b", 0), {5, 6, 3, 4, 7}},
      {by_name.from("b", 0.0, 1), {3, 4, 7}},
      {by_name.from("b", 0).backwards(), {3, 6, 5, 2, 1}},
      {by_name.from("bb").backwards(), {4, 3, 6, 5, 2, 1}},
      {by_name.equal("b"), {2, 5, 6, 3, 4}},
      {by_name.equal("b").backwards(), {4, 3, 6, 5, 2}},
      {by_name.equal("b", 0), {5, 6, 3}},  // one of them below zero by its bits only
      {by_name.equal("b", 0, 9).backwards(), {6, 5}},
      {by_name.equal("c"), {}},
  };
  int index = 0;
  for (const auto& [range, expected] : cases) {
    for (const Range& same : {range, range.bulk(1), range.bulk(3), range.bulk(100)}) {
      EXPECT_EQ(ids(same), expected) << index;
    }
    ++index;
  }
  EXPECT_THROW(static_cast<void>(by_name.bulk(0)), std::invalid_argument);
}

TEST_F(Hpp, KeyValuesThatDoNotFitAreRefused) {
  File file = build();
  const Range by_name = file.by(kByName);
  EXPECT_THROW(static_cast<void>(by_name.from(1)), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(by_name.from("a", "b")), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(by_name.from("a", 1, 2.0)), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(by_name.from("a", 1, 2, 3)), std::invalid_argument);
  EXPECT_THROW(static_cast<void>(by_name.from("abcde")), std::length_error);
  EXPECT_THROW(static_cast<void>(by_name.from("a", 1, 40000)), std::out_of_range);
  EXPECT_THROW(static_cast<void>(file.find(kById, std::numeric_limits<std::uint64_t>::max())),
               std::out_of_range);
}

TEST_F(Hpp, ALoopMayChangeItsRecordsButNotThePosition) {
  File file = build();
  for (auto record : file.by(kByName).equal("b")) {
    const bool drop = record.get(kId) % 2 == 0;
    EXPECT_EQ(drop ? file.remove(record) : file.update(record.set(kName, "z")), Outcome::kDone);
  }
  EXPECT_EQ(ids(file.by(kByName)), (Numbers{1, 7, 5, 3}));
  EXPECT_EQ(file.records(), 4);
  const auto disturb = [&] {
    for (const auto& record : file.by(kById)) static_cast<void>(file.find(kById, record.get(kId)));
  };
  EXPECT_THROW(disturb(), std::logic_error);
}

TEST_F(Hpp, ExpectedOutcomesAreResultsAndOthersErrors) {
  EXPECT_FALSE(File::open_if_there(name()));
  try {
    static_cast<void>(File::open(name()));
    ADD_FAILURE() << "opened what is not there";
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_EQ(error.status(), "9035");
    EXPECT_EQ(error.call(), "isopen " + name());
    EXPECT_NE(std::string(error.what()).find(iserrtext(ENOENT)), std::string::npos);
  }
  File file = build();
  try {
    static_cast<void>(File::build(name(), kLength, kById));
    ADD_FAILURE() << "built what is there";
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), EEXIST);
    EXPECT_EQ(error.place(), 0x21);
  }
  auto record = file.find(kById, 5);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->number(), 3);
  EXPECT_EQ(file.at(3)->get(kId), 5);
  EXPECT_FALSE(file.at(99));
  EXPECT_EQ(file.add(*record), Outcome::kDuplicate);
  EXPECT_EQ(file.remove(*record), Outcome::kDone);
  EXPECT_EQ(file.remove(*record), Outcome::kNotFound);
  EXPECT_FALSE(file.find(kById, 5));
  EXPECT_EQ(file.start(kById, Move::kGreater, 5), Outcome::kDone);
  EXPECT_EQ(file.read(*record, Move::kNext), Outcome::kDone);
  EXPECT_EQ(record->get(kId), 6);
  EXPECT_EQ(file.start(kById, Move::kLast), Outcome::kDone);
  EXPECT_EQ(file.read(*record, Move::kNext), Outcome::kEnd);
  Record shorter(kLength - 1);
  EXPECT_THROW(static_cast<void>(file.add(shorter)), std::invalid_argument);
  EXPECT_THROW(file.drop_index(kById), Error);

  File other = std::move(file);
  EXPECT_EQ(other.indexes(), 2);
  EXPECT_EQ(ids(other.by(other.index(2)).from("c")), Numbers{7});
  other.close();
  EXPECT_EQ(isclose(0), -1) << "nothing is left open";
}

TEST_F(Hpp, RecordsOfVariableLengthKeepIt) {
  {
    File file = File::build(name(), Lengths{8, 3000}, kById);
    for (const int length : {8, 3000, 9}) {
      Record record(static_cast<std::size_t>(length));
      EXPECT_EQ(file.add(record.set(kId, length)), Outcome::kDone);
    }
    Record beyond(3001);
    EXPECT_THROW(static_cast<void>(file.add(beyond)), Error);
  }
  File file = File::open(name(), Access::kRead);
  EXPECT_TRUE(file.variable());
  EXPECT_EQ(file.record_length(), 3000);
  for (const auto& record : file.by(kById)) {
    EXPECT_EQ(record.get(kId), static_cast<int>(record.size()));
  }
}

// What another process with its own open of the pair meets.
Outcome elsewhere(const std::string& name, Outcome (*act)(File& file)) {
  const int status = testing_support::end_of(testing_support::start_process([&] {
    iscleanup();  // nothing of this process's opens and locks
    File file = File::open(name);
    ::_exit(static_cast<int>(act(file)));
  }));
  EXPECT_TRUE(WIFEXITED(status));
  return static_cast<Outcome>(WEXITSTATUS(status));
}

TEST_F(Hpp, LocksEndWithTheirScope) {
  build().close();
  const auto lock_record = [this] {
    return elsewhere(name(), [](File& file) {
      auto record = file.find(kById, 4);
      return record ? file.read(*record, Move::kCurrent, Lock::kTry) : Outcome::kNotFound;
    });
  };
  const auto lock_file = [this] {
    return elsewhere(name(),
                     [](File& file) { return FileLock(file) ? Outcome::kDone : Outcome::kLocked; });
  };
  File file = File::open(name());
  {
    const RecordLocks locks(file);
    auto record = file.find(kById, 4);
    ASSERT_TRUE(record);
    EXPECT_EQ(lock_record(), Outcome::kDone);
    EXPECT_EQ(file.read(*record, Move::kCurrent, Lock::kTry), Outcome::kDone);
    EXPECT_EQ(lock_record(), Outcome::kLocked);
    EXPECT_EQ(lock_file(), Outcome::kLocked);
    file.release(*record);
    EXPECT_EQ(lock_record(), Outcome::kDone);
  }
  EXPECT_EQ(lock_record(), Outcome::kDone);
  {
    const FileLock lock(file);
    EXPECT_TRUE(lock);
    EXPECT_EQ(lock_record(), Outcome::kLocked);
    EXPECT_EQ(lock_file(), Outcome::kLocked);
  }
  EXPECT_EQ(lock_file(), Outcome::kDone);
}

// The stamp tells each change of another process, also of bytes that are in no key, and nothing
// else.
TEST_F(Hpp, TheStampIsRaisedByChanges) {
  build().close();
  File file = File::open(name());
  const auto change_share = [](File& other) {
    auto record = other.find(kById, 4);
    return record ? other.update(record->set(kShare, 2.0F)) : Outcome::kNotFound;
  };
  const auto count_up = [](File& other) {
    isaltinc(other.number());
    return other.unique_id() > 0 ? Outcome::kDone : Outcome::kNotFound;
  };
  const auto look = [](File& other) {
    return ids(other.by(kById)).size() == 7 ? Outcome::kDone : Outcome::kNotFound;
  };
  const std::uint32_t before = file.stamp();
  EXPECT_EQ(elsewhere(name(), look), Outcome::kDone);
  EXPECT_EQ(elsewhere(name(), count_up), Outcome::kDone);
  EXPECT_EQ(file.stamp(), before);
  EXPECT_EQ(elsewhere(name(), change_share), Outcome::kDone);
  EXPECT_EQ(file.stamp(), before + 1);
  Record twice = file.blank();
  EXPECT_EQ(file.add(twice.set(kId, 4)), Outcome::kDuplicate);
  EXPECT_EQ(isstamp(file.number(), nullptr), -1);
  EXPECT_EQ(iserrno, ISEARGUMENT);
  EXPECT_EQ(file.stamp(), before + 1);
}

// What is left of a file with one record after a transaction in it ended in each way.
TEST_F(Hpp, ATransactionIsUndoneUnlessItIsCommitted) {
  const std::string log_name = folder_ / "log";
  EXPECT_THROW(Log{log_name}, Error);
  EXPECT_THROW(Transaction{}, Error);
  std::ofstream{log_name}.flush();
  Log log(log_name);
  EXPECT_THROW(Log{log_name}, Error);
  for (const bool variable : {false, true}) {
    const std::string pair = name() + (variable ? "v" : "f");
    File file = variable
                    ? File::build(pair, {8, 40}, kById, Locking::kManual, Logging::kTransactions)
                    : File::build(pair, 22, kById, Locking::kManual, Logging::kTransactions);
    const auto add = [&file](int id) {
      Record record = file.blank();
      return file.add(record.set(kId, id));
    };
    {
      Transaction transaction;
      EXPECT_EQ(add(1), Outcome::kDone);
      EXPECT_THROW(Transaction{}, std::logic_error);
      transaction.commit();
    }
    {
      const Transaction transaction;
      EXPECT_EQ(add(2), Outcome::kDone);
    }
    EXPECT_EQ(file.records(), 1);
    Transaction transaction;
    EXPECT_EQ(add(3), Outcome::kDone);
    EXPECT_EQ(add(1), Outcome::kDuplicate);
    ::issusplog();
    EXPECT_THROW(transaction.commit(), Error);
    EXPECT_THROW(transaction.roll_back(), Error);
    ::isresumlog();
    transaction.roll_back();
    EXPECT_THROW(transaction.commit(), std::logic_error);
    file = File::open(pair, Access::kReadWrite, Locking::kManual, Logging::kUnlogged);
    const auto size = std::filesystem::file_size(log_name);
    EXPECT_EQ(add(4), Outcome::kDone);
    EXPECT_EQ(std::filesystem::file_size(log_name), size);
    EXPECT_EQ(ids(file.by(kById)), (Numbers{1, 4}));
  }
  log.close();
  EXPECT_THROW(static_cast<void>(File::open(name() + "f", Access::kReadWrite, Locking::kManual,
                                            Logging::kTransactions)),
               Error);
}

}  // namespace
}  // namespace zentra
