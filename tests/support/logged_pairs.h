// logged_pairs: the pairs that logs are about, in the current folder: records of an id, a group and
// a filler, an index over each of the first two.
#pragma once

#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>

#include "isam.h"

namespace testing_support {

// Not the records of session.h: one test program may hold tests of both.
inline namespace logged_pairs {

inline constexpr int kIdLength = 8, kGroupAt = 8, kMinimum = 16, kMaximum = 3000;

inline keydescr id_key() { return {0, 1, {{0, kIdLength, KT_CHAR}}, 0, 0}; }
inline keydescr group_key() { return {KF_DUPS | KF_COMPRESS, 1, {{kGroupAt, 8, KT_CHAR}}, 0, 0}; }

inline std::string row(int id, int group, int filler = 0, char fill = 'x') {
  char head[2 * std::numeric_limits<int>::digits10 + 5];  // what any two numbers need
  std::snprintf(head, sizeof head, "%08d%08d", id, group);
  return std::string(head, kMinimum) + std::string(static_cast<std::size_t>(filler), fill);
}

}  // namespace logged_pairs

// A call that must not fail.
inline int sure(int result) {
  if (result < 0) throw std::runtime_error("a call failed with " + std::to_string(iserrno));
  return result;
}

inline int open_pair(const std::string& name, bool varying, int mode) {
  return ::isopen(name.c_str(), ISINOUT + mode + (varying ? ISVARLEN : 0));
}

inline int add(int isfd, std::string record) {
  isreclen = static_cast<int>(record.size());
  return ::iswrite(isfd, record.data());
}

// A pair with records 1 to `records`, each with its number as id; the varying ones get longer.
inline void build_pair(const std::string& name, bool varying, int records = 0) {
  keydescr id = id_key();
  keydescr group = group_key();
  isreclen = kMinimum;
  const int isfd = sure(::isbuild(name.c_str(), varying ? kMaximum : kMinimum, &id,
                                  ISINOUT + ISEXCLLOCK + (varying ? ISVARLEN : 0)));
  sure(::isaddindex(isfd, &group));
  for (int i = 1; i <= records; ++i) sure(add(isfd, row(i, 0, varying ? 100 * i : 0)));
  sure(::isclose(isfd));
}

}  // namespace testing_support
