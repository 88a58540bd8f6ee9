// log_fixture: a folder with a log and pairs, worked on through the public calls.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "isam.h"
#include "tests/support/logged_pairs.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {

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

  static int open(const char* name, int mode = ISTRANS) {
    return open_pair(name, varying(), ISMANULOCK + mode);
  }
  // A filler that fits the format.
  static int filler(int length) { return varying() ? length : 0; }

  static int write(int isfd, const std::string& record) { return add(isfd, record); }
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
  // All records as number:id.group+filler, in the order of their numbers.
  static std::string contents(int isfd) {
    rows(isfd);
    std::string text, record(kMaximum, 0);
    keydescr by_number{};
    ::isstart(isfd, &by_number, 0, record.data(), RD_FIRST);
    while (::isread(isfd, record.data(), RD_NEXT) == 0) {
      const int id = std::atoi(record.substr(0, kIdLength).c_str());
      const int group = std::atoi(record.substr(kGroupAt, 8).c_str());
      const int more = varying() ? isreclen - kMinimum : 0;
      text += (text.empty() ? "" : " ") + std::to_string(isrecnum) + ':' + std::to_string(id) +
              '.' + std::to_string(group) + (more == 0 ? "" : '+' + std::to_string(more));
      const std::string whole = row(id, group, more);
      if (record.compare(0, whole.size(), whole) != 0) text += '?';
    }
    return text;
  }
  static std::string contents_of(const char* name) {
    const int isfd = open_pair(name, varying(), ISMANULOCK);
    if (isfd < 0) return "none";
    std::string text = contents(isfd);
    ::isclose(isfd);
    return text;
  }
  // What kestro finds wrong with a pair.
  static std::string faults(const std::string& name) {
    const RunResult result = run_program({.words = {KESTRO_PROGRAM, "-n", name}});
    const bool sound = result.status == 0 && result.out.find("ERROR") == std::string::npos;
    return sound ? "" : result.out;
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
