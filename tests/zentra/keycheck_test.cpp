// The two orders in which keys are compared with records find the same.
#include "zentra/check/keycheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "checker/driver.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "tests/support/damaged_pair.h"
#include "tests/support/run_program.h"
#include "zentra/check/deep.h"
#include "zentra/pair/readpair.h"

namespace zentra {
namespace {

class Told : public Report {
 public:
  void begin(const char* /*command*/, int /*pairs*/) override {}
  void pair_begins(int /*number*/, int /*pairs*/, const std::string& /*name*/) override {}
  void pair_is(int /*number*/, const std::string& /*name*/) override {}
  void entry(const Entry& entry) override {
    std::string text = entry.code + " index " + std::to_string(entry.key);
    for (const auto& [name, value] : entry.fields) {
      text += std::string(" ") + name + " ";
      if (const auto* number = std::get_if<std::int64_t>(&value)) text += std::to_string(*number);
      if (const auto* bytes = std::get_if<FileBytes>(&value)) text += bytes->bytes;
    }
    all.push_back(text);
  }
  void pair_ends(Status, const std::string& /*text*/, const Fields& /*fields*/) override {}
  void end(Status /*status*/, const Fields& /*fields*/) override {}

  std::vector<std::string> all;
};

std::vector<std::string> told_in_order(const std::string& base, KeyCheck::Order order) {
  Told told;
  ReadPair pair;
  if (pair.open(base, std::chrono::seconds(1)) && pair.load()) {
    DeepCollector collector(told, {}, order);
    const checker::Options how{.nflag = 1, .qflag = 1};
    checker::Check check(how, collector);
    static_cast<void>(checker::run_checks(check));
  }
  isam::clear_errors();
  std::ranges::sort(told.all);
  return told.all;
}

TEST(KeyCheck, FindsTheSameInEitherOrder) {
  const testing_support::TempFolder folder;
  const std::string base = folder / "pair";
  int differing = 0;
  for (int number = 0; number < 150; ++number) {
    testing_support::write_damaged_pair(number, base);
    const auto told = told_in_order(base, KeyCheck::Order::kOfIndex);
    ASSERT_EQ(told_in_order(base, KeyCheck::Order::kOfRecords), told) << number;
    differing += std::ranges::any_of(
        told, [](const std::string& text) { return text.starts_with("index.key-differs"); });
  }
  EXPECT_GT(differing, 3);
}

}  // namespace
}  // namespace zentra
