// sessions: processes that work on a pair through the library's public calls.
//
// The records hold an id (primary key), a group (second key, repeating), a counter, and a filler
// that follows from these, so that a record put together from two shows.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>
#include <string>

#include "isam.h"
#include "tests/support/child_process.h"
#include "tests/support/common_memory.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {

inline constexpr int kGroupAt = 60, kCounterAt = 68, kMinimum = 72, kMaximum = 2600;

struct Row {
  int id = 0;
  int group = 0;
  int counter = 0;
};

// Few ids fit a node, so that the tree of a small pair has some.
inline keydescr id_key() { return {0, 1, {{0, kGroupAt, KT_CHAR}}, 0, 0}; }
inline keydescr group_key() { return {KF_DUPS | KF_COMPRESS, 1, {{kGroupAt, 8, KT_CHAR}}, 0, 0}; }

inline std::string record_of(const Row& row, bool varying) {
  std::array<char, kMinimum + 1> head{};
  std::snprintf(head.data(), head.size(), "%0*d%08d", kGroupAt, row.id, row.group);
  ::stlong(row.counter, &head[kCounterAt]);
  const unsigned salt =
      static_cast<unsigned>(row.id) * 37 + static_cast<unsigned>(row.counter) * 211;
  return std::string(head.data(), kMinimum) +
         std::string(varying ? salt % (kMaximum - kMinimum) : 0,
                     static_cast<char>('a' + salt % 26));
}

// False for anything that record_of does not make.
inline bool parse(const std::string& record, bool varying, Row& row) {
  if (record.size() < kMinimum) return false;
  row.id = std::atoi(record.substr(0, kGroupAt).c_str());
  row.group = std::atoi(record.substr(kGroupAt, kCounterAt - kGroupAt).c_str());
  row.counter = ::ldlong(&record[kCounterAt]);
  return record_of(row, varying) == record;
}

inline constexpr int kGarbled = -2;

// One process's open of the pair.
struct Session {
  std::string base;
  bool varying = false;
  int isfd = -1;
  Row row = {};  // of the last record read

  int open(int mode) {
    isfd = ::isopen(base.c_str(), mode | (varying ? ISVARLEN : 0));
    return isfd;
  }
  // Without the second key.
  int build_empty(int mode) {
    keydescr id = id_key();
    ::isreclen = kMinimum;
    isfd = ::isbuild(base.c_str(), varying ? kMaximum : kMinimum, &id,
                     mode | (varying ? ISVARLEN : 0));
    return isfd;
  }
  int build(int mode) {
    keydescr group = group_key();
    return build_empty(mode) < 0 ? -1 : ::isaddindex(isfd, &group);
  }
  int start(keydescr key, int mode) {
    std::string record = record_of(row, varying);
    return ::isstart(isfd, &key, 0, record.data(), mode);
  }
  // Reads into `row`; a record that is not as it was written counts as a failure.
  int read(int mode, int id = 0) {
    std::string record = record_of({.id = id}, varying);
    record.resize(kMaximum);
    const int result = ::isread(isfd, record.data(), mode);
    record.resize(varying ? static_cast<std::size_t>(::isreclen) : kMinimum);
    if (result == 0 && !parse(record, varying, row)) return kGarbled;
    return result;
  }
  template <typename Call, typename... Arguments>
  int put(const Row& fresh, Call call, Arguments... arguments) {
    std::string record = record_of(fresh, varying);
    ::isreclen = static_cast<std::int32_t>(record.size());
    return call(isfd, arguments..., record.data());
  }
};

// What a check or a repair of the pair says.
inline std::string kestro(const char* options, const std::string& base) {
  const RunResult run = run_program({.words = {KESTRO_PROGRAM, options, base}});
  EXPECT_EQ(run.status, 0) << run.out;
  return run.out;
}

inline void expect_nothing_found(const std::string& report) {
  EXPECT_TRUE(report.find("ERROR") == report.npos && report.find('?') == report.npos) << report;
}

// A check after a repair finds nothing but what the pattern says.
inline void expect_repaired(const std::string& base, const char* stays) {
  static_cast<void>(kestro("-yq", base));
  expect_nothing_found(std::regex_replace(kestro("-nq", base), std::regex(stays), ""));
}

// The counters of the records that can be read, by their ids, which must lie in this range.
inline std::map<int, int> counters_in(const std::string& base, bool varying, int first, int last) {
  std::map<int, int> counters;
  for (const auto& [number, image] : walk_pair(base).records) {
    Row row;
    if (!parse(std::string(image.begin(), image.end()), varying, row)) continue;
    EXPECT_TRUE(row.id >= first && row.id <= last) << row.id;
    counters[row.id] = row.counter;
  }
  return counters;
}

inline void build_pair_of(const std::string& base, bool varying, int records) {
  EXPECT_EQ(end_of(start_process([&] {
              Session session{base, varying};
              if (session.build(ISINOUT | ISEXCLLOCK) != 0) ::_exit(1);
              for (int id = 1; id <= records; ++id) {
                if (session.put({id, id / 3, 0}, ::iswrite) != 0) ::_exit(2);
              }
              if (::isclose(session.isfd) != 0) ::_exit(3);
            })),
            0);
}

}  // namespace testing_support
