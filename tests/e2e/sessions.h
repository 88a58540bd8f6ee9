// sessions: what tests with several processes make of a pair and expect of it.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/common_memory.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"
#include "tests/support/session.h"

namespace testing_support {

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
