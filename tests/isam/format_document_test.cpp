// The bytes that docs/format.md shows are those that the library writes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

#include "isam.h"
#include "tests/support/descriptions.h"
#include "tests/support/run_program.h"

namespace {

using testing_support::key_of;

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The example files, in a folder of their own.
class FormatDocument : public testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::current_path(folder_.path());
    const int towns = build_towns("towns");
    ASSERT_EQ(isclose(towns), 0);
    write_lists();
    write_notes();
    log_transaction();
  }
  void TearDown() override { std::filesystem::current_path("/"); }

 private:
  static void add(int isfd, std::string record) {
    isreclen = static_cast<int>(record.size());
    ASSERT_EQ(iswrite(isfd, record.data()), 0) << iserrno;
  }

  static int build_towns(const char* name) {
    keydescr code = key_of({{0, 4, KT_CHAR}});
    keydescr town = key_of({{4, 12, KT_CHAR}}, KF_DUPS + KF_COMPRESS);
    const int isfd = isbuild(name, 16, &code, ISINOUT + ISEXCLLOCK);
    EXPECT_EQ(isaddindex(isfd, &town), 0) << iserrno;
    for (const char* record :
         {"A001Bergen      ", "A002Berlin      ", "A003Berlin      ", "A004Bern        "}) {
      add(isfd, record);
    }
    return isfd;
  }

  static void write_lists() {
    keydescr town = key_of({{4, 12, KT_CHAR}}, KF_DUPS + KF_COMPRESS);
    keydescr descending = key_of({{0, 4, KT_CHAR + KT_DESC}});
    const int isfd = build_towns("lists");
    std::filesystem::copy_file("lists.idx", "held.idx");
    ASSERT_EQ(isaddindex(isfd, &descending), 0);
    ASSERT_EQ(isdelrec(isfd, 2), 0);
    ASSERT_EQ(isdelindex(isfd, &town), 0);
    ASSERT_EQ(isdelindex(isfd, &descending), 0);
    ASSERT_EQ(isclose(isfd), 0);
  }

  static void write_notes() {
    keydescr code = key_of({{0, 4, KT_CHAR}});
    isreclen = 4;
    const int isfd = isbuild("notes", 2000, &code, ISINOUT + ISEXCLLOCK + ISVARLEN);
    add(isfd, "A001seen from the sea");
    add(isfd, "A002flat");
    add(isfd, "A003" + std::string(1000, 'x'));
    ASSERT_EQ(isclose(isfd), 0);
  }

  static void log_transaction() {
    std::ofstream("towns.log").close();
    ASSERT_EQ(islogopen("towns.log"), 0);
    const int isfd = isopen("towns", ISINOUT + ISMANULOCK + ISTRANS);
    char trail[128] = "towns.aud";
    ASSERT_EQ(isaudit(isfd, trail, AUDSETNAME), 0);
    ASSERT_EQ(isaudit(isfd, trail, AUDSTART), 0);
    ASSERT_EQ(isbegin(), 0);
    add(isfd, "A005Bonn        ");
    ASSERT_EQ(iscommit(), 0);
    ASSERT_EQ(isclose(isfd), 0);
    ASSERT_EQ(islogclose(), 0);
  }

  testing_support::TempFolder folder_;
};

// A heading in a drawn block names a file and a byte; lines below it, up to an empty one, begin
// with an offset from there and bytes in hexadecimal, ".." for any.
TEST_F(FormatDocument, ShowsWhatTheLibraryWrites) {
  std::istringstream document(contents(KESTRO_DOCUMENTS "/format.md"));
  std::map<std::string, int> compared;
  std::string line;
  std::string name;
  std::string bytes;
  std::size_t base = 0;
  while (std::getline(document, line)) {
    const std::size_t comma = line.find(", byte ");
    if (line.empty()) name.clear();
    if (line.starts_with("    ") && comma != std::string::npos) {
      name = line.substr(4, comma - 4);
      bytes = contents(name);
      base = std::stoul(line.substr(comma + 7));
      ASSERT_FALSE(bytes.empty()) << line;
      continue;
    }
    if (name.empty()) continue;
    std::size_t length = 0;
    std::size_t at = base + std::stoul(line, &length);
    const std::size_t shown = length + 2;  // two blanks before the bytes, two or more behind them
    std::istringstream words(line.substr(shown, line.find("  ", shown) - shown));
    for (std::string word; words >> word; ++at) {
      ASSERT_LT(at, bytes.size()) << line;
      const auto byte = static_cast<unsigned char>(bytes[at]);
      EXPECT_EQ(word == ".." ? byte : std::stoul(word, nullptr, 16), byte) << name << ": " << line;
      ++compared[name];
    }
  }
  EXPECT_EQ(compared.size(), 9U);
  for (const auto& [file, count] : compared) EXPECT_GE(count, 8) << file;
  // The drawn log and trail are shown from their first byte to their last.
  EXPECT_EQ(compared["towns.log"], std::ssize(contents("towns.log")));
  EXPECT_EQ(compared["towns.aud"], std::ssize(contents("towns.aud")));
}

}  // namespace
