// log_worker: a process that works on several pairs under one log, and its journal of what must
// stand afterwards, wherever it is killed.
//
// A worker changes records of its own only, in units: a transaction that commits, or one change
// outside a transaction. Before a unit can be in the log, the journal holds the state after it; so
// the number of a worker's units in the log says which state the files must have.
#pragma once

#include <array>
#include <atomic>
#include <map>
#include <random>
#include <string>

#include "isam.h"
#include "tests/txlog/log_fixture.h"

namespace testing_support {

inline constexpr int kWorkers = 4;
inline constexpr int kFiles = 4;  // every other one of variable length
inline constexpr int kOwn = 16;   // records of a worker in a file

// The version of each record, 0 for one that is absent.
struct State {
  std::array<std::array<int, kOwn>, kFiles> versions{};
};

struct Journal {
  static constexpr int kKept = 64;

  std::array<State, kKept> states;  // the last ones, by number of units modulo kKept
  std::atomic<int> units = 0;       // that the worker knows to be in the log
  int rollbacks = 0;
  int refused = 0;  // changes that met a lock
  int version = 0;  // given last
  int line = 0;     // of the first call that failed as it must not, and why
  int reason = 0;

  void clear() {
    states = {};
    units = rollbacks = refused = version = 0;
  }
  State& after(int unit) { return states.at(static_cast<std::size_t>(unit % kKept)); }
};

// How much a worker works with.
struct Extent {
  int files = kFiles;
  int own = kOwn;
  int longest = 1500;  // bytes that a record of variable length may have beyond the minimum
  int groups = 7;
  bool in_batches = false;  // in batch mode
};

inline std::string name_of_file(int file) { return "file" + std::to_string(file); }
inline bool is_varying(int file) { return file % 2 != 0; }
inline int id_of(int worker, int slot) { return slot * kWorkers + worker + 1; }

// A record's version says what its group is and, with variable length, how long it is.
inline std::string record_of(int file, int id, int version, const Extent& extent) {
  const int salt = id * 37 + version * 211;
  std::string record = row(id, version % extent.groups, 8);
  std::snprintf(&record[kMinimum], 8, "%07d", version);
  record.back() = static_cast<char>('a' + salt % 26);
  return record +
         std::string(is_varying(file) ? static_cast<std::size_t>(salt % extent.longest) : 0,
                     record.back());
}

// Besides the keys of the fixture one of two parts.
inline keydescr group_and_id_key() {
  return {KF_COMPRESS, 2, {{kGroupAt, 8, KT_CHAR}, {0, kIdLength, KT_CHAR}}, 0, 0};
}
inline constexpr int kLeast = kMinimum + 8;

inline void build_files(const Extent& extent) {
  for (int file = 0; file < extent.files; ++file) {
    const int format = is_varying(file) ? ISVARLEN : 0;
    keydescr id = id_key();
    isreclen = kLeast;
    const int isfd = ::isbuild(name_of_file(file).c_str(), is_varying(file) ? kMaximum : kLeast,
                               &id, ISINOUT + ISEXCLLOCK + format);
    for (keydescr more : {group_key(), group_and_id_key()}) {
      EXPECT_EQ(::isaddindex(isfd, &more), 0);
    }
    EXPECT_EQ(::isclose(isfd), 0);
  }
}

template <typename Array>
auto& element(Array& array, int index) {
  return array.at(static_cast<std::size_t>(index));
}

class Worker {
 public:
  Worker(int number, const Extent& extent, Journal& journal, unsigned seed)
      : number_(number), extent_(extent), journal_(journal), random_(seed) {
    check(::islogopen("log") == 0, __LINE__);
    for (int file = 0; file < extent_.files; ++file) open(file);
    if (extent_.in_batches) ::isbatch(1);
  }

  // The next unit, or a transaction that is rolled back.
  void step() {
    state_ = journal_.after(journal_.units);
    const int pick = any(10);
    if (pick < 3) {
      if (any(4) == 0) reopen(any(extent_.files));
      if (change(true)) ++journal_.units;
      unlock();
    } else {
      transaction(pick < 8, 1 + any(5));
    }
  }

  // A transaction that changes more than others, and comes to nothing.
  void roll_back() {
    state_ = journal_.after(journal_.units);
    transaction(false, 1 + any(20));
  }

  void finish() {
    check(::islogclose() == 0, __LINE__);
    ::iscleanup();
  }

 private:
  int any(int below) { return static_cast<int>(random_() % static_cast<unsigned>(below)); }

  // A call that fails is noted, except for a refused lock.
  bool check(bool good, int line) {
    if (!good && ::iserrno == ISELOCKED) {
      ++journal_.refused;
    } else if (!good && journal_.line == 0) {
      journal_.line = line;
      journal_.reason = ::iserrno;
    }
    return good;
  }

  void open(int file) {
    const int format = is_varying(file) ? ISVARLEN : 0;
    int& isfd = element(opens_, file);
    isfd = ::isopen(name_of_file(file).c_str(), ISINOUT | ISMANULOCK | ISTRANS | format);
    check(isfd >= 0, __LINE__);
  }
  void close(int file) { check(::isclose(element(opens_, file)) == 0, __LINE__); }
  void reopen(int file) {
    close(file);
    open(file);
  }

  void transaction(bool commits, int changes) {
    check(::isbegin() == 0, __LINE__);
    bool changed = false;
    for (; changes > 0; --changes) {
      changed |= change(false);
      if (any(8) == 0) reopen(any(extent_.files));
    }
    const int closed = any(6);  // stays so until the end, if it is a file's number
    if (closed < extent_.files) close(closed);
    if (!commits) {
      check(::isrollback() == 0, __LINE__);
      ++journal_.rollbacks;
    } else {
      journal_.after(journal_.units + 1) = state_;
      if (check(::iscommit() == 0, __LINE__) && changed) ++journal_.units;
    }
    if (closed < extent_.files) open(closed);
  }

  // Changes one of the worker's records, if it can be locked. By itself it is a unit, of which the
  // journal hears before.
  bool change(bool by_itself) {
    const int file = any(extent_.files);
    const int slot = any(extent_.own);
    if (any(4) == 0) lock_anybodys(file);
    int& version = element(element(state_.versions, file), slot);
    const int before = version;
    const bool deletes = before != 0 && any(4) == 0;
    version = deletes ? 0 : ++journal_.version;
    if (by_itself) journal_.after(journal_.units + 1) = state_;
    const bool done =
        put(element(opens_, file), before == 0, deletes,
            record_of(file, id_of(number_, slot), deletes ? before : version, extent_));
    if (!done) version = before;
    return done;
  }

  bool put(int isfd, bool inserts, bool deletes, std::string record) {
    std::string room(kMaximum, 0);
    if (inserts) return written(::iswrite, isfd, record);
    if (any(2) == 0) {
      return deletes ? check(::isdelete(isfd, record.data()) == 0, __LINE__)
                     : written(::isrewrite, isfd, record);
    }
    record.copy(room.data(), record.size());
    if (!check(::isread(isfd, room.data(), RD_EQUAL | RD_LOCK) == 0, __LINE__)) return false;
    if (deletes) return check(::isdelcurr(isfd) == 0, __LINE__);
    return written(any(2) == 0 ? ::isrewcurr : rewrite_as_set, isfd, record);
  }
  static int rewrite_as_set(int isfd, char* record) {
    recordset set{1, record, kMaximum, &isrecnum, &isreclen};
    return ::isrewritemany(isfd, &set) == 1 ? 0 : -1;
  }
  bool written(int (*call)(int, char*), int isfd, std::string& record) {
    isreclen = static_cast<int>(record.size());
    return check(call(isfd, record.data()) == 0, __LINE__);
  }

  // Others may then have to do without theirs.
  void lock_anybodys(int file) {
    std::string room = row(1 + any(extent_.own * kWorkers), 0, kMaximum);
    const bool locked = ::isread(element(opens_, file), room.data(), RD_EQUAL | RD_LOCK) == 0;
    if (!locked && ::iserrno != ISENORECORD) check(false, __LINE__);
  }
  void unlock() {
    for (int file = 0; file < extent_.files; ++file) {
      check(::isrelease(element(opens_, file)) == 0, __LINE__);
    }
  }

  int number_;
  Extent extent_;
  Journal& journal_;
  std::mt19937 random_;
  State state_;
  std::array<int, kFiles> opens_{};
};

// How many units of each process a log holds. A transaction without a change is none.
inline std::map<std::int32_t, int> units_in(const Image& log) {
  struct Writer {
    int units = 0;
    bool begun = false;
    bool changed = false;
  };
  std::map<std::int32_t, Writer> writers;
  for (std::size_t at = 4; at + 26 <= log.size();) {
    const auto length = static_cast<std::size_t>(get2(&log[at]));
    if (length < 26 || length > log.size() - at) break;
    const std::string type{static_cast<char>(log[at + 2]), static_cast<char>(log[at + 3])};
    Writer& writer = writers[get4(&log[at + 4])];
    const bool is_image = type == "IN" || type == "UP" || type == "DE";
    if (type == "BW") writer = {writer.units, true, false};
    if (is_image) writer.changed = true;
    if (writer.changed && (type == "CW" || !writer.begun)) ++writer.units;
    if (!writer.begun || type == "CW" || type == "RW") writer = {writer.units, false, false};
    at += length;
  }
  std::map<std::int32_t, int> units;
  for (const auto& [process, writer] : writers) units[process] = writer.units;
  return units;
}

}  // namespace testing_support
