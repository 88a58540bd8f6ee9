// A settings file of any bytes; tests/scripts/settings tells the rest.
#include "environment/settings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace testing_support {
namespace {

TEST(SettingsFile, HoldsAnyBytes) {
  std::mt19937 random(1);
  const std::string some("AB_9 \t\n\r#\"'\\\0\x80\xFF", 15);
  for (int run = 0; run < 2000; ++run) {
    std::string text(random() % 64, '\0');
    for (char& c : text) c = some[random() % some.size()];
    const auto file = environment::parse_settings("file", text);
    EXPECT_LE(std::ssize(file.settings) + std::ssize(file.problems),
              std::count(text.begin(), text.end(), '\n') + 1);
  }
}

}  // namespace
}  // namespace testing_support
