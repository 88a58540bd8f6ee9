// Where the values of variables come from.
#include "environment/settings.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

using environment::parse_settings;
using environment::Settings;
using environment::SettingsFile;
using environment::Source;

void write_text(const std::string& path, const std::string& text) {
  write_file(path, Image(text.begin(), text.end()));
}

TEST(SettingsFile, TellsWhatALineSays) {
  struct Case {
    const char* line;
    const char* name;   // null: nothing is set
    const char* value;  // without a name: the problem, null for none
  };
  const Case cases[] = {
      {"", nullptr, nullptr},
      {"  \t", nullptr, nullptr},
      {"# NAME value", nullptr, nullptr},
      {"NAME value", "NAME", "value"},
      {"\t_n2 \t two words  \r", "_n2", "two words"},
      {"NAME a#b # remark", "NAME", "a#b"},
      {"NAME \xC3\xA4\xFF", "NAME", "\xC3\xA4\xFF"},
      {"NAME \"a # \\\" \\\\ b \" # remark", "NAME", "a # \" \\ b "},
      {"NAME 'it is \\\"'", "NAME", "it is \\\""},
      {"NAME \"\"", "NAME", ""},
      {"NAME", nullptr, "no value (an empty one is written \"\")"},
      {"NAME # value", nullptr, "no value (an empty one is written \"\")"},
      {"NAME=value", nullptr, "a blank must follow the name"},
      {"2NAME value", nullptr, "a name begins with a letter or an underscore"},
      {"NAME \"value", nullptr, "the quote is not closed"},
      {"NAME \"value\\\"", nullptr, "the quote is not closed"},
      {"NAME 'value'x", nullptr, "text behind the closing quote"},
      {"NAME 'value' x", nullptr, "text behind the closing quote"},
      {"NAME a\x01z", nullptr, "control character"},
  };
  for (const Case& each : cases) {
    const SettingsFile file = parse_settings("file", std::string("\n") + each.line);
    EXPECT_EQ(file.settings.size(), each.name != nullptr ? 1u : 0u) << each.line;
    EXPECT_EQ(file.problems.size(), each.name == nullptr && each.value != nullptr ? 1u : 0u)
        << each.line;
    for (const auto& setting : file.settings) {
      EXPECT_EQ(setting.name, each.name);
      EXPECT_EQ(setting.value, each.value);
      EXPECT_EQ(setting.line, 2);
    }
    for (const auto& problem : file.problems) {
      EXPECT_EQ(problem.text, each.value) << each.line;
      EXPECT_EQ(problem.line, 2);
    }
  }
}

TEST(SettingsFile, HoldsAnyBytes) {
  std::mt19937 random(1);
  const std::string some("AB_9 \t\n\r#\"'\\\0\x80\xFF", 16);
  for (int run = 0; run < 2000; ++run) {
    std::string text(random() % 64, '\0');
    for (char& c : text) c = some[random() % some.size()];
    const SettingsFile file = parse_settings("file", text);
    EXPECT_LE(file.settings.size() + file.problems.size(),
              static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
  }
  const SettingsFile long_name = parse_settings("file", std::string(65, 'A') + " 1");
  ASSERT_EQ(long_name.problems.size(), 1u);
  EXPECT_EQ(long_name.problems[0].text, "name too long");
}

// A home directory and an installation of its own, and no variables set.
class Lookup : public testing::Test {
 protected:
  Lookup() {
    std::filesystem::create_directories(folder_ / "home");
    std::filesystem::create_directories(folder_ / "root/etc");
    ::setenv("HOME", (folder_ / "home").c_str(), 1);
    ::setenv("MARVOLENDIR", (folder_ / "root").c_str(), 1);
    for (const char* name : {"ENVIGNORE", "ISAMBUFS", "CLIENT_LOCALE", "OWN"}) ::unsetenv(name);
  }

  void user_file(const std::string& text) { write_text(folder_ / "home/.marvolen", text); }
  void system_file(const std::string& text) { write_text(folder_ / "root/etc/marvolen.rc", text); }

  static std::string value(const char* name) { return Settings{}.find(name).value; }

  RunResult kestroenv(std::vector<std::string> names = {}) {
    names.insert(names.begin(), KESTROENV_PROGRAM);
    return run_program({.words = std::move(names), .folder = folder_.path()});
  }

  TempFolder folder_;
};

TEST_F(Lookup, TakesTheNearestSource) {
  EXPECT_EQ(value("ISAMBUFS"), "16");
  EXPECT_EQ(Settings{}.find("OWN").source, Source::kNone);
  system_file("ISAMBUFS 20\nOWN system\nISAMBUFS 21\n");
  EXPECT_EQ(value("ISAMBUFS"), "21");
  user_file("ISAMBUFS 30\n");
  EXPECT_EQ(value("ISAMBUFS"), "30");
  EXPECT_EQ(value("OWN"), "system");
  ::setenv("ISAMBUFS", "40", 1);
  EXPECT_EQ(value("ISAMBUFS"), "40");
}

TEST_F(Lookup, IgnoresWhatAnySourceListsInTheProcessEnvironmentOnly) {
  ::setenv("ISAMBUFS", "40", 1);
  ::setenv("OWN", "process", 1);
  ::setenv("ENVIGNORE", "", 1);  // does not lift what the files list
  system_file("ENVIGNORE ' ISAMBUFS ,,x'\n");
  EXPECT_EQ(value("ISAMBUFS"), "16");
  EXPECT_TRUE(Settings{}.find("ISAMBUFS").ignored);
  EXPECT_EQ(value("OWN"), "process");
  user_file("ENVIGNORE MARVOLENDIR,OWN\nMARVOLENDIR " + folder_ / "elsewhere" + "\nOWN user\n");
  EXPECT_EQ(value("OWN"), "user");
  EXPECT_EQ(value("ISAMBUFS"), "40") << "the system file is another one now";
}

TEST_F(Lookup, GoesOnWithoutFilesThatCannotBeRead) {
  const std::string user = folder_ / "home/.marvolen";
  ASSERT_EQ(::mkfifo(user.c_str(), 0600), 0);
  EXPECT_EQ(Settings{}.user_file().problems.at(0).text, "not a regular file");
  std::filesystem::remove(user);
  user_file(std::string(environment::kMaxSettingsFile - 13, '\n') + "ISAMBUFS 30\n\n");
  EXPECT_EQ(value("ISAMBUFS"), "30");
  user_file(std::string(environment::kMaxSettingsFile - 12, '\n') + "ISAMBUFS 30\n\n");
  EXPECT_EQ(Settings{}.user_file().problems.at(0).text, "larger than 65536 bytes");
  EXPECT_EQ(value("ISAMBUFS"), "16");
  std::filesystem::remove(user);
  std::filesystem::create_directory(user);
  EXPECT_EQ(Settings{}.user_file().problems.at(0).text, "not a regular file");
  for (const char* home : {"", "/no/such/place"}) {
    ::setenv("HOME", home, 1);
    EXPECT_TRUE(Settings{}.user_file().problems.empty());
  }
  ::unsetenv("HOME");
  EXPECT_EQ(value("ISAMBUFS"), "16");
}

TEST_F(Lookup, ReachesTheProgram) {
  user_file("CLIENT_LOCALE no_such.place\n");
  const RunResult run = run_program({.words = {KESTRO_PROGRAM, "-n", "pair"}});
  EXPECT_EQ(run.status, 255);
  EXPECT_EQ(run.err.find("ulx function initulx failed, error "), 0u);
}

TEST_F(Lookup, IsListedAsASettingsFile) {
  ::setenv("ISAMBUFS", "many \"\\#\n", 1);
  ::setenv("ISAMSORTMEM", "8", 1);
  user_file("OWN 'a  b'\nENVIGNORE ISAMSORTMEM\n");
  const std::string user = folder_ / "home/.marvolen";
  const RunResult run = kestroenv();
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("\nISAMSORTMEM         64  # default, environment ignored\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\nOWN                 \"a  b\"  # " + user + ":1, unknown name\n"),
            std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("\n# RESETLOCK is not set\n"), std::string::npos);
  const SettingsFile again = parse_settings("list", run.out);
  EXPECT_TRUE(again.problems.empty());
  EXPECT_EQ(again.find("ISAMBUFS")->value, "many \"\\#?");

  system_file("ISAMBUFS\nISAMSORTMEM 7\n");
  const RunResult faulty = kestroenv({"ISAMSORTMEM"});
  EXPECT_EQ(faulty.status, 1);
  EXPECT_EQ(faulty.err,
            folder_ / "root/etc/marvolen.rc" + ":1: no value (an empty one is written \"\")\n");
  EXPECT_EQ(std::count(faulty.out.begin(), faulty.out.end(), '\n'), 1);
  EXPECT_EQ(kestroenv({"-x"}).status, 1);
}

}  // namespace
}  // namespace testing_support
