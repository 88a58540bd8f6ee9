// session: one process's open of a pair, and the records of these pairs.
//
// The records hold an id (primary key), a group (second key, repeating), a counter, and a filler
// that follows from these, so that a record put together from two shows.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "isam.h"

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

// What a call for many records takes of such a pair.
struct RowSet {
  RowSet(const std::vector<Row>& from, bool varying) : numbers(from.size()) {
    for (const Row& row : from) {
      std::string record = record_of(row, varying);
      lengths.push_back(static_cast<std::int32_t>(record.size()));
      record.resize(varying ? kMaximum : kMinimum);
      records += record;
    }
    set = {static_cast<std::int32_t>(from.size()), records.data(), records.size(), numbers.data(),
           lengths.data()};
  }
  RowSet(const RowSet&) = delete;
  RowSet& operator=(const RowSet&) = delete;

  std::vector<std::int32_t> numbers, lengths;
  std::string records;
  recordset set{};
};

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
  // Reads into `row`; a record that is not as it was written counts as a failure. Every other time
  // it is read as one of many, which makes no difference.
  int read(int mode, int id = 0) {
    std::string record = record_of({.id = id}, varying);
    record.resize(kMaximum);
    static bool as_many = false;
    as_many = !as_many;
    const int move = mode & 0xFF;
    recordset set{1, record.data(), record.size(), &::isrecnum, &::isreclen};
    int result = -1;
    if (!as_many || move < RD_NEXT || move == RD_CURR) {
      result = ::isread(isfd, record.data(), mode);
    } else if ((move < RD_EQUAL ? ::isreadmany : ::isfetchmany)(isfd, &set, mode) == 1) {
      result = 0;
    }
    if (!varying && record.find_first_not_of('\0', kMinimum) != record.npos) return kGarbled;
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

}  // namespace testing_support
