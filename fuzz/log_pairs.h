// log_pairs: the two small pairs over which logs are replayed, in the current folder.
#pragma once

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "isam.h"

namespace fuzz {

inline constexpr std::array kPairNames = {"fixed", "varying"};
inline constexpr int kLeast = 24;
inline constexpr int kMost = 1200;
inline constexpr int kPresent = 8;  // records at the start, numbered from 1 except for one

inline bool is_varying(int pair) { return pair == 1; }
inline keydescr id_key() { return {0, 1, {{0, 8, KT_CHAR}}, 0, 0}; }
inline keydescr group_key() { return {KF_DUPS | KF_COMPRESS, 1, {{8, 8, KT_CHAR}}, 0, 0}; }

// A call that must not fail.
inline int sure(int result) {
  if (result < 0) std::abort();
  return result;
}

inline std::string record_of(int id, int length) {
  std::string record(static_cast<std::size_t>(length), static_cast<char>('a' + id % 26));
  record.replace(0, 8, std::to_string(10000000 + id));
  record.replace(8, 8, std::to_string(10000000 + id % 3));
  return record;
}

inline int open_pair(int pair, int mode) {
  return isopen(kPairNames.at(static_cast<std::size_t>(pair)),
                ISINOUT + mode + (is_varying(pair) ? ISVARLEN : 0));
}

inline int add(int isfd, int id, int length) {
  std::string record = record_of(id, length);
  isreclen = length;
  return iswrite(isfd, record.data());
}

inline void build_pairs() {
  for (int pair = 0; pair < 2; ++pair) {
    const bool varying = is_varying(pair);
    keydescr id = id_key();
    keydescr group = group_key();
    isreclen = kLeast;
    const int isfd =
        sure(isbuild(kPairNames.at(static_cast<std::size_t>(pair)), varying ? kMost : kLeast, &id,
                     ISINOUT + ISEXCLLOCK + (varying ? ISVARLEN : 0)));
    sure(isaddindex(isfd, &group));
    for (int i = 1; i <= kPresent; ++i) sure(add(isfd, i, varying ? 100 * i : kLeast));
    sure(isdelrec(isfd, kPresent / 2));
    sure(isclose(isfd));
  }
}

}  // namespace fuzz
