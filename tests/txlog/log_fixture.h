// log_fixture: a folder with a log and pairs, worked on through the public calls.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "isam.h"
#include "tests/support/layout.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {

// Not the records of sessions.h: one test program may hold tests of both.
inline namespace logged_pairs {

inline constexpr int kIdLength = 8, kGroupAt = 8, kMinimum = 16, kMaximum = 3000;

inline keydescr id_key() { return {0, 1, {{0, kIdLength, KT_CHAR}}, 0, 0}; }
inline keydescr group_key() { return {KF_DUPS | KF_COMPRESS, 1, {{kGroupAt, 8, KT_CHAR}}, 0, 0}; }

// A record as a text: id, group, and a filler of the length asked for.
inline std::string row(int id, int group, int filler = 0, char fill = 'x') {
  char head[kMinimum + 1];
  std::snprintf(head, sizeof head, "%08d%08d", id, group);
  return std::string(head, kMinimum) + std::string(static_cast<std::size_t>(filler), fill);
}

}  // namespace logged_pairs

using Rows = std::vector<std::string>;

// The current folder of the process for as long as the test lasts: logs name files relative to it.
class LogTest : public ::testing::TestWithParam<bool> {
 protected:
  LogTest() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder_.path());
    std::ofstream{"log"};
  }
  ~LogTest() override {
    ::iscleanup();
    ::islogclose();
    ::iscleanup();
    std::filesystem::current_path(before_);
  }

  [[nodiscard]] static bool varying() { return GetParam(); }
  [[nodiscard]] static int format() { return varying() ? ISVARLEN : 0; }

  static int build(const char* name, int mode = ISTRANS) {
    keydescr id = id_key();
    keydescr group = group_key();
    isreclen = kMinimum;
    const int made =
        ::isbuild(name, varying() ? kMaximum : kMinimum, &id, ISINOUT + ISEXCLLOCK + format());
    EXPECT_GE(made, 0);
    EXPECT_EQ(::isaddindex(made, &group), 0);
    ::isclose(made);
    return mode < 0 ? -1 : open(name, mode);
  }
  static int open(const char* name, int mode = ISTRANS) {
    return ::isopen(name, ISINOUT + ISMANULOCK + format() + mode);
  }
  // A filler that fits the format.
  static int filler(int length) { return varying() ? length : 0; }

  static int write(int isfd, std::string record) {
    isreclen = static_cast<int>(record.size());
    return ::iswrite(isfd, record.data());
  }
  static int rewrite(int isfd, std::string record) {
    isreclen = static_cast<int>(record.size());
    return ::isrewrite(isfd, record.data());
  }
  static int erase(int isfd, int id) {
    std::string record = row(id, 0);
    return ::isdelete(isfd, record.data());
  }

  // All records in the order of a key, forwards; backwards must give the same.
  static Rows rows(int isfd, keydescr key) {
    Rows found = walk(isfd, key, RD_FIRST, RD_NEXT);
    Rows back = walk(isfd, key, RD_LAST, RD_PREV);
    std::ranges::reverse(back);
    EXPECT_TRUE(found == back);
    return found;
  }
  static Rows rows(int isfd) {
    const Rows by_id = rows(isfd, id_key());
    Rows by_group = rows(isfd, group_key());
    std::ranges::sort(by_group);
    EXPECT_TRUE(by_id == by_group);
    dictinfo info{};
    ::isdictinfo(isfd, &info);
    EXPECT_EQ(info.di_nrecords, static_cast<int>(by_id.size()));
    return by_id;
  }
  // What kestro finds wrong with a pair.
  static std::string faults(const std::string& name) {
    const RunResult result = run_program({.words = {KESTRO_PROGRAM, "-n", name}});
    const bool sound = result.status == 0 && result.out.find("ERROR") == std::string::npos;
    return sound ? "" : result.out + result.err;
  }

  // The types of the records in a log, in two letters each.
  static std::string types(const char* path = "log") {
    const Image log = read_file(path);
    std::string letters;
    for (std::size_t at = 4; at + 26 <= log.size();
         at += static_cast<std::size_t>(get2(&log[at]))) {
      letters += letters.empty() ? "" : " ";
      letters += {static_cast<char>(log[at + 2]), static_cast<char>(log[at + 3])};
      if (get2(&log[at]) < 26) break;
    }
    return letters;
  }

  void keep_copy() {
    copy_ = folder_.path() / "copy";
    std::filesystem::create_directory(copy_);
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      if (entry.is_regular_file()) {
        std::filesystem::copy(entry.path(), copy_,
                              std::filesystem::copy_options::overwrite_existing);
      }
    }
  }
  // Puts the pairs of the copy back; the log stays.
  void restore_copy() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      const auto extension = entry.path().extension();
      if (extension == ".idx" || extension == ".dat") std::filesystem::remove(entry.path());
    }
    for (const auto& entry : std::filesystem::directory_iterator(copy_)) {
      if (entry.path().filename() != "log") std::filesystem::copy(entry.path(), folder_.path());
    }
  }

 private:
  static Rows walk(int isfd, keydescr key, int first, int next) {
    Rows found;
    std::string record(kMaximum, 0);
    EXPECT_EQ(::isstart(isfd, &key, 0, record.data(), first), 0);
    int mode = first;
    while (::isread(isfd, record.data(), mode) == 0) {
      found.push_back(record.substr(0, static_cast<std::size_t>(isreclen)));
      mode = next;
    }
    EXPECT_EQ(iserrno, ISEEND);
    return found;
  }

  TempFolder folder_;
  std::filesystem::path before_;
  std::filesystem::path copy_;
};

}  // namespace testing_support
