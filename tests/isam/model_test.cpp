// Long random scripts of public calls, each call compared with a simple model of the pair.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <random>
#include <set>
#include <sstream>
#include <utility>

#include "common/io.h"
#include "isam/pool/pool.h"
#include "tests/support/between.h"
#include "tests/support/descriptions.h"
#include "tests/support/isam_model.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"
#include "tests/support/run_program.h"

namespace testing_support {
namespace {

using Bytes = IsamModel::Bytes;

// All records begin alike: a name, an id, a rank, an amount that may be null, and a text.
constexpr int kMinimum = 61;
constexpr keypart kName{0, 8, KT_CHAR}, kId{8, 4, KT_LONG}, kRank{12, 2, KT_INT},
    kRankDown{12, 2, KT_INT | KT_DESC}, kAmount{14, 8, KT_DOUBLE},
    kAmountDown{14, 8, KT_DOUBLE | KT_DESC}, kText{22, 12, KT_CHAR},
    kTextDown{22, 12, KT_CHAR | KT_DESC};

unsigned setting(const char* name, unsigned otherwise) {
  const char* value = std::getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

struct Shape {
  std::string name;
  int maximum;             // record length; above kMinimum with variable length
  std::vector<int> locks;  // lock mode of each open
  std::vector<keydescr> keys;
  const char* buffers = "16";  // of the pool, at first
  int node_size = 1024;
  unsigned calls = setting("KESTRO_MODEL_CALLS", 20000);
};

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

template <typename... Arguments>
std::string text(const Arguments&... arguments) {
  std::ostringstream out;
  ((out << ' ' << arguments), ...);
  return out.str();
}

std::string show(const Bytes& record) {
  int null = 0;
  const double amount = ::lddblnull(&record[14], &null);
  return text('[', record.substr(0, 8), ::ldlong(&record[8]), ::ldint(&record[12]),
              null != 0 ? "null" : text(amount), record.substr(22, 12), ']');
}

std::string show(const keydescr& k) {
  std::string all = text("key", k.flags);
  std::for_each(k.part, k.part + k.nparts, [&all](const keypart& part) {
    all += text(';', part.start, part.length, part.type);
  });
  return all;
}

// Which writes the system refuses.
enum class Refused { kNone, kOne, kGrowth, kAll };
struct {
  Refused what = Refused::kNone;
  int error = 0;
  unsigned left = 0;                     // writes that are still done
  int hits = 0;                          // since the last look
  std::pair<int, off_t> no_room{-1, 0};  // in this call: file and end that one was to lengthen
} faults;

int before_write(const SystemCall& call) {
  if (call.kind != SystemCall::kWrite) return 0;
  const bool again = faults.no_room == std::pair{call.fd, call.at} && call.grows();  // or with less
  const bool meant =
      faults.what != Refused::kNone && (faults.what != Refused::kGrowth || call.grows());
  if (!again && (!meant || (faults.left > 0 && faults.left-- > 0))) return 0;
  if (faults.what == Refused::kOne) {
    faults.what = Refused::kNone;
    if (call.grows()) faults.no_room = {call.fd, call.at};
  }
  ++faults.hits;
  return faults.error;
}

// One pair, the library's calls on it and the model.
class Script {
 public:
  explicit Script(const Shape& shape) : shape_(shape) {
    ::setenv("ISAMBUFS", shape.buffers, 1);
    isam::the_pool.reset();
    stand_between(before_write);
    faults = {};
    build();
  }
  Script(const Script&) = delete;
  Script& operator=(const Script&) = delete;
  ~Script() {
    faults = {};
    ::iscleanup();
    stand_aside();
  }

  void run(unsigned calls, unsigned writes, unsigned deletes) {
    for (; calls > 0 && !failed; --calls) {
      choose_faults();
      step(any(100), writes, writes + deletes);
    }
    faults.what = Refused::kNone;
    for (int& isfd : opens_) close(isfd);
    if (!failed) verify();
  }

  bool failed = false;
  std::size_t made = 0, good = 0, refused = 0;  // calls, and those that succeeded or met a failure

 private:
  void build() {
    model_ = {kMinimum, shape_.maximum, keys_};
    unique_ = 1;
    last_read_.clear();
    ::unlink((base_ + ".idx").c_str());
    ::unlink((base_ + ".dat").c_str());
    if (shape_.node_size != 1024) return build_with_small_nodes();
    std::vector<keydescr> keys = keys_;
    ::isreclen = kMinimum;
    const int isfd =
        ::isbuild(base_.c_str(), shape_.maximum, &keys[0], ISINOUT | ISEXCLLOCK | format_);
    for (std::size_t i = 1; i < keys.size(); ++i) EXPECT_EQ(::isaddindex(isfd, &keys[i]), 0);
    EXPECT_EQ(::isclose(isfd), 0);
    model_.number = ::isrecnum;
    model_.length = ::isreclen;
  }
  void build_with_small_nodes() {
    PairSpec spec{
        .node_size = shape_.node_size, .record_length = kMinimum, .keys = {}, .records = 0};
    for (const keydescr& k : keys_) {
      KeySpec& key = spec.keys.emplace_back(KeySpec{k.flags, {}});
      std::for_each(k.part, k.part + k.nparts, [&key](const keypart& part) {
        key.parts.push_back({part.start, part.length, part.type});
      });
    }
    build_pair(spec, base_);
    model_.length = ::isreclen = kMinimum;
    model_.number = ::isrecnum;
  }
  // A result, and what a call that succeeds tells besides.
  struct Answer {
    int result;
    std::string told = {};
  };

  unsigned any(std::size_t below) { return static_cast<unsigned>(random_() % below); }
  bool one_in(unsigned times) { return any(times) == 0; }
  int among(std::initializer_list<int> values) { return values.begin()[any(values.size())]; }

  // Seldom the next write fails, or one soon; the disk is full for a while, or broken. (Where
  // others write no more, a shared call cannot take back what it wrote.)
  void choose_faults() {
    faults.no_room.first = -1;
    const bool over = faults.what == Refused::kAll && !model_.is_alone();
    if (over || one_in(8)) faults.what = Refused::kNone;
    if (faults.what != Refused::kNone || !one_in(200)) return;
    const bool one = one_in(2);
    const bool all = model_.is_alone() && one_in(4);
    faults = {.what = one   ? Refused::kOne
                      : all ? Refused::kAll
                            : Refused::kGrowth,
              .error = seed_ % 2 == 0 ? EIO : ENOSPC,
              .left = any(one ? 6 : 2)};
  }

  // What a call has to do with the failure of a write that an exclusive open had delayed: the next
  // one that gets as far as the pair tells it and does nothing else, the close and the flush do so
  // every time, and isopen never does.
  enum class Late { kTold, kToldAgain, kPassedOver };

  // Whether the call that has ended must tell, or may and does, of a write that failed: its own, or
  // one that was delayed.
  bool told(Late late) {
    const int hits = std::exchange(faults.hits, 0);
    const bool tells = faults.error != 0 && ::iserrno == faults.error;
    if (tells && ::iserrio >> 4 != 5) fail("it was a write that failed");
    const bool again = late == Late::kToldAgain;
    own_ = hits > 0;
    if (own_) ++refused;
    if (!model_.is_alone()) return own_;
    if (own_) {
      // It was the call's own, or is told by a later one.
      const Known fresh = tells ? Known::kPerhaps : Known::kYes;
      owed_ = std::max(late == Late::kPassedOver ? owed_ : Known::kNo, fresh);
      lost_ = std::max(lost_, fresh);
      return again || tells;
    }
    if (late == Late::kPassedOver || ::iserrno == ISENOTOPEN) return false;
    Known& known = again ? lost_ : owed_;
    const bool tells_late = known == Known::kYes || (tells && known == Known::kPerhaps);
    if (again || tells_late) lost_ = tells_late ? Known::kYes : Known::kNo;
    owed_ = Known::kNo;
    return tells_late;
  }

  // What the model says of a call that has ended, unless a write failed.
  template <typename Says>
  int expected(const Says& says, Late late = Late::kTold) {
    return told(late) ? model_.fails(faults.error) : says();
  }

  // The last exclusive open could not write everything: nobody opens the pair before it is
  // repaired. What could be written at last is there then.
  void mend() {
    const bool whole = !own_;
    faults = {};
    for (int& isfd : opens_) {
      ::isclose(isfd);
      model_.isclose(isfd);
      isfd = -1;
    }
    owed_ = lost_ = Known::kNo;
    const int isfd = ::isopen(base_.c_str(), ISINOUT | ISMANULOCK | format_);
    if (isfd >= 0 ? whole : ::iserrno != ISECORRUPT) return fail("opened without repair");
    ::isclose(isfd);
    ::iscleanup();
    for (const char* how : {"-yq", "-nq"}) {
      const RunResult run =
          run_program({.words = {KESTRO_PROGRAM, how, "pair"}, .folder = folder_.path()});
      const bool wrong = run.out.find("ERROR") != run.out.npos;
      // Of a variable part and its record only one may have been written.
      const bool lossy = !whole && (how[1] == 'y' || format_ != 0);
      if (!lossy && (wrong || run.status != 0)) return fail(run.out);
    }
    if (whole) return verify();
    build();
  }

  void step(unsigned pick, unsigned write, unsigned erase) {
    const std::size_t slot = any(opens_.size());
    if (opens_[slot] < 0) return open(opens_[slot], any_mode(shape_.locks[slot]), one_in(9));
    if (one_in(150)) return close(opens_[slot]);
    const int isfd = one_in(60) ? among({-1, 256, 77, INT32_MAX}) : opens_[slot];
    set_variables();
    // Where reads are a test's own, no file is mapped.
    if (one_in(300)) std::swap(common::system_calls().pread, other_pread_);
    if (pick < write && one_in(12)) return write_many(isfd, any(one_in(6) ? 120 : 7));
    if (pick < erase) return change(isfd, pick < write ? among({0, 0, 1}) : among({5, 6, 6, 7}));
    pick = any(100);
    if (pick < 5) {
      read_many(isfd, any_read_mode(), any(one_in(9) ? 400 : 9));
    } else if (pick < 55) {
      const int mode = any_read_mode();
      unsigned more = one_in(9) ? any(50) : 0;  // steps in a row are read ahead
      while (read(isfd, mode) && more > 0) --more;
    } else if (pick < 70) {
      any_start(isfd);
    } else if (pick < 97) {
      change(isfd, among({2, 3, 3, 4}));
    } else {
      ask(isfd);
    }
  }

  // The pair has no fault, and reads as it should in every order.
  void verify() {
    const RunResult run =
        run_program({.words = {KESTRO_PROGRAM, "-nq", "pair"}, .folder = folder_.path()});
    const std::string counts = text(model_.records.size(), "data record(s) used");
    const bool silent = run.status == 0 && run.out.find("kestro: ") == run.out.npos &&
                        run.out.find(counts) != run.out.npos &&
                        run.out.find("ERROR") == run.out.npos && run.out.find('?') == run.out.npos;
    if (!silent) fail(run.out + "expected" + counts);
    const Walk walk = walk_pair(base_);
    if (!walk.problems.empty() || !walk.untidy.empty()) {
      fail(testing::PrintToString(walk.problems) + testing::PrintToString(walk.untidy));
    }
    open(opens_[0], ISINPUT | ISMANULOCK | format_, false);
    for (std::size_t i = 0; i <= keys_.size(); ++i) {
      for (const auto& [edge, mode] : {std::pair{RD_FIRST, RD_NEXT}, {RD_LAST, RD_PREV}}) {
        start(opens_[0], i == 0 ? keydescr{} : keys_[i - 1], 0, edge);
        while (read(opens_[0], mode)) continue;
      }
    }
    close(opens_[0]);
  }

  int any_mode(int lock) {
    if (one_in(8)) return among({3, 4, 8, 2, 0x100, 0x600, 0x1000}) | (one_in(2) ? lock : 0);
    const int format = among({format_, format_, format_, format_ ^ ISVARLEN, ISANYLENGTH});
    return among({ISINOUT, ISINOUT, ISINOUT, ISINOUT, ISINPUT, ISOUTPUT}) | lock | format;
  }

  void open(int& isfd, int mode, bool misnamed) {
    const int trouble = misnamed ? among({ENOENT, ISENAME}) : 0;
    const std::string rest = trouble == 0 ? "" : std::string(trouble == ENOENT ? 1 : 123, 'x');
    const int got = ::isopen((base_ + rest).c_str(), mode);
    const int result =
        expected([&] { return model_.isopen(trouble, mode, got); }, Late::kPassedOver);
    if (check({got}, {result}, "isopen", rest, mode)) isfd = got;
  }

  void close(int& isfd) {
    for (int times = one_in(4) ? 2 : 1; isfd >= 0 && times > 0; --times) {
      const int result = ::isclose(isfd);
      const bool alone = model_.is_alone();
      const bool fails = told(Late::kToldAgain);
      const int closed = model_.isclose(isfd);
      check({result}, {fails ? model_.fails(faults.error) : closed}, "isclose", isfd);
      if (model_.is_alone() || !alone) continue;
      isfd = -1;
      if (fails && !failed) mend();
      owed_ = lost_ = Known::kNo;
    }
    isfd = -1;
  }

  void any_start(int isfd) {
    const std::size_t i = any(keys_.size() + 1);
    keydescr k = i == 0 ? keydescr{} : keys_[i - 1];
    const int whole = k.keylen;
    int len = whole > 0 && one_in(3) ? static_cast<int>(any(k.keylen + 1U)) : 0;
    int mode = among({RD_FIRST, RD_LAST, RD_EQUAL, RD_GREAT, RD_GTEQ});
    if (one_in(25)) mode = among({RD_NEXT, RD_PREV, RD_CURR, 8, -1});
    if (one_in(25)) len = among({-1, whole + 1});
    if (one_in(25)) k.part[0].length = static_cast<std::int16_t>(++k.nparts);
    start(isfd, k, len, mode);
  }

  void start(int isfd, keydescr k, int len, int mode) {
    Bytes record = any_record();
    keydescr stored = k;
    const int got = ::isstart(isfd, &k, len, record.data(), mode);
    const int result = expected([&] { return model_.isstart(isfd, stored, len, record, mode); });
    check({got, text(k.flags)}, {result, text(stored.flags)}, "isstart", isfd, show(k), len,
          show(record), mode);
  }

  int any_read_mode() {
    if (one_in(40)) return among({8, 0xFF, 0x600, 0x702, 0x802, 0x1000, -1});
    return among({0, 0, 0, 0x100, 0x200, 0x300, 0x400, 0x500}) +
           among({RD_FIRST, RD_LAST, RD_NEXT, RD_NEXT, RD_NEXT, RD_NEXT, RD_NEXT, RD_PREV, RD_PREV,
                  RD_PREV, RD_CURR, RD_EQUAL, RD_EQUAL, RD_GREAT, RD_GTEQ});
  }

  bool read(int isfd, int mode) {
    const Bytes wanted = any_record();
    Bytes got = wanted;
    Bytes record = wanted;
    const int result = ::isread(isfd, got.data(), mode);
    const int says = expected([&] { return model_.isread(isfd, record, mode); });
    if (result == 0) last_read_ = got;
    return check({result, got.substr(0, record.size())}, {says, record}, "isread", isfd,
                 show(wanted), std::hex, mode);
  }

  // Arrays for one call that reads or writes many records. Without a count nothing else is right.
  struct Many {
    explicit Many(std::size_t count) : numbers(count), lengths(count), records(count) {}
    recordset set(int record_length) {
      const auto room = static_cast<std::size_t>(record_length);
      for (Bytes& record : records) buffer += record;
      return {static_cast<std::int32_t>(records.size()), buffer.data(), records.size() * room,
              numbers.data(), lengths.data()};
    }
    std::vector<std::int32_t> numbers, lengths;
    std::vector<Bytes> records;
    Bytes buffer;
  };

  bool read_many(int isfd, int mode, std::size_t count) {
    Many many(count);
    for (Bytes& record : many.records) record = any_record();
    for (std::int32_t& number : many.numbers) number = any_number();
    Many said = many;
    recordset set = many.set(shape_.maximum);
    const int got = (mode & 0xFF) >= RD_EQUAL ? ::isfetchmany(isfd, &set, mode)
                                              : ::isreadmany(isfd, &set, mode);
    const int says =
        expected([&] { return model_.isreadmany(isfd, said.records, said.numbers, mode); });
    std::string read, wanted;
    for (std::size_t i = 0; static_cast<int>(i) < std::min(got, says); ++i) {
      last_read_ = many.buffer.substr(i * static_cast<std::size_t>(shape_.maximum),
                                      static_cast<std::size_t>(shape_.maximum));
      read += text(many.numbers[i], many.lengths[i]) + last_read_.substr(0, said.records[i].size());
      wanted += text(said.numbers[i], said.records[i].size()) + said.records[i];
    }
    return check({got, read == wanted ? "" : "other records"}, {says}, "isreadmany", isfd, count,
                 std::hex, mode);
  }

  // An exclusive open is not refused a write meanwhile: it may be told by any of the records.
  void write_many(int isfd, std::size_t count) {
    if (model_.is_alone()) faults.what = Refused::kNone;
    Many many(count);
    for (Bytes& record : many.records) {
      record = any_record();
      if (!one_in(40)) ::stlong(++fresh_, &record[8]);
    }
    const int choice = shape_.maximum - kMinimum + 1;
    for (std::int32_t& length : many.lengths) {
      length = kMinimum + static_cast<int>(any(static_cast<std::size_t>(choice)));
    }
    Many said = many;
    recordset set = many.set(shape_.maximum);
    const int got = ::iswritemany(isfd, &set);
    const auto writes = [&] {
      return model_.iswritemany(isfd, said.records, said.numbers, said.lengths);
    };
    int says = 0;
    if (told(Late::kTold)) {
      said.records.resize(static_cast<std::size_t>(std::max(got, 0)));
      if (got > 0) writes();
      if (got >= 0 && format_ != 0) model_.length = said.lengths[static_cast<std::size_t>(got)];
      model_.fails(faults.error);
      says = got;
    } else {
      says = writes();
    }
    many.numbers.resize(static_cast<std::size_t>(std::max(got, 0)));
    said.numbers.resize(static_cast<std::size_t>(std::max(says, 0)));
    check({got, many.numbers == said.numbers ? "" : "other numbers"}, {says}, "iswritemany", isfd,
          count);
    close_unsure();
  }

  // One of the calls that write (0, 1), rewrite (2 to 4) or delete (5 to 7) a record.
  void change(int isfd, int call) {
    const std::int32_t number = one_in(30) ? among({0, -1, INT32_MIN, INT32_MAX}) : any_number();
    Bytes record = any_record();
    // Often a record as it was but for one field on, so that few other keys are in the way.
    const auto old = model_.records.lower_bound(number);
    const auto same = static_cast<std::size_t>(among({0, 8, 12, 14, 22, 34, kMinimum}));
    if (call > 1 && old != model_.records.end()) record.replace(0, same, old->second, 0, same);
    if (!last_read_.empty() && one_in(3)) place_beside_last_read(record);
    char* const at = record.data();
    const Target key{Target::kPrimaryKey}, current{Target::kCurrent},
        by_number{Target::kNumber, number};
    const auto compare = [&](const char* name, int got, const auto& says) {
      const int result = expected(says);
      if (result != 0 && call < 2 && own_ && model_.error == faults.error) model_.return_refused();
      check({got}, {result}, name, isfd, number, show(record), ::isreclen);
      close_unsure();
    };
    const auto writes = [&] { return model_.iswrite(isfd, record, call == 1); };
    const auto rewrites = [&](Target target) {
      return [=, this, &record] { return model_.isrewrite(isfd, target, record); };
    };
    const auto deletes = [&](Target target) {
      return [=, this, &record] { return model_.isdelete(isfd, target, record); };
    };
    switch (call) {
      case 0:
        return compare("iswrite", ::iswrite(isfd, at), writes);
      case 1:
        return compare("iswrcurr", ::iswrcurr(isfd, at), writes);
      case 2:
        return compare("isrewrite", ::isrewrite(isfd, at), rewrites(key));
      case 3:
        return compare("isrewcurr", ::isrewcurr(isfd, at), rewrites(current));
      case 4:
        return compare("isrewrec", ::isrewrec(isfd, number, at), rewrites(by_number));
      case 5:
        return compare("isdelete", ::isdelete(isfd, at), deletes(key));
      case 6:
        return compare("isdelcurr", ::isdelcurr(isfd), deletes(current));
      default:
        compare("isdelrec", ::isdelrec(isfd, number), deletes(by_number));
    }
  }

  void close_unsure() {
    const std::set<int> unsure = model_.take_unsure();
    for (int& isfd : opens_) {
      if (unsure.contains(isfd)) close(isfd);
    }
  }

  // Its items go where some open stands, or one of them is refused there.
  void place_beside_last_read(Bytes& record) {
    record.replace(0, kMinimum, last_read_, 0, kMinimum);
    const int by = among({-1, 0, 1});
    if (one_in(3)) {
      ::stint(::ldint(&record[12]) + by, &record[12]);
    } else {
      ::stlong(::ldlong(&record[8]) + by, &record[8]);
    }
  }

  void ask(int isfd) {
    const auto other = [&](IsamModel::Access access, bool legal = true, Late late = Late::kTold) {
      return expected([&] { return model_.isother(isfd, access, legal); }, late);
    };
    int got = ::isflush(isfd);
    check({got}, {other(IsamModel::kRead, true, Late::kToldAgain)}, "isflush", isfd);
    got = ::isrelease(isfd);
    check({got}, {other(IsamModel::kNothing)}, "isrelease", isfd);
    std::int32_t id = static_cast<std::int32_t>(any(3000)) - 1000;
    got = ::issetunique(isfd, id);
    if (check({got}, {other(IsamModel::kWrite)}, "issetunique", isfd, id)) {
      unique_ = std::max(unique_, id);
    }
    got = ::isuniqueid(isfd, &id);
    if (check({got, text(id)}, {other(IsamModel::kWrite), text(unique_)}, "isuniqueid", isfd)) {
      ++unique_;
    }
    dictinfo info{};
    got = ::isdictinfo(isfd, &info);
    const std::size_t indexes = keys_.size() + (format_ != 0 ? DI_VARLEN : 0);
    check({got, text(info.di_nkeys, info.di_recsize, info.di_idxsize, info.di_nrecords)},
          {other(IsamModel::kRead),
           text(indexes, shape_.maximum, shape_.node_size - 1, model_.records.size())},
          "isdictinfo", isfd);
    keydescr k{};
    const std::size_t n = any(keys_.size() + 3);
    const bool exists = n >= 1 && n <= keys_.size();
    got = ::iskeyinfo(isfd, &k, static_cast<int>(n));
    const int result = other(IsamModel::kRead, exists);
    if (result == 0) model_.length = kMinimum;
    check({got, show(k)}, {result, exists ? show(keys_[n - 1]) : ""}, "iskeyinfo", isfd, n);
  }

  Bytes any_record() {
    Bytes record(static_cast<std::size_t>(shape_.maximum), '\0');
    for (std::size_t i = 0, salt = any(256); i < record.size(); ++i) {
      record[i] = static_cast<char>(salt + i * (i / 7));
    }
    const std::string name(any(5), static_cast<char>('a' + any(4)));
    const std::string place = std::string("north-eastern").substr(0, any(12));
    ::stchar(name.c_str(), record.data(), 8);
    ::stlong(static_cast<std::int32_t>(any(2500)) - 1000, &record[8]);
    ::stint(static_cast<int>(any(60)) - 30, &record[12]);
    ::stdblnull(&record[14], one_in(6) ? 1 : 0, (static_cast<int>(any(120)) - 60) / 8.0);
    ::stchar((place + static_cast<char>('a' + any(9))).c_str(), &record[22], 12);
    return record;
  }

  // A number, mostly of a record, and a length: whole pieces of storage and their neighbours too.
  void set_variables() {
    ::isrecnum = model_.number =
        one_in(20) ? among({INT32_MIN, -7, -1, 0, INT32_MAX}) : any_number();
    constexpr int kPiece = 1023 - 29;
    const int room = shape_.maximum - kMinimum;
    if (room == 0) return;
    int extra = among({0, 0, static_cast<int>(any(60)), static_cast<int>(any(room + 1U)),
                       kPiece * among({1, 2, 3}) + among({-1, 0, 1})});
    if (one_in(50)) extra = among({-1, -kMinimum, -1000, room + 1});
    ::isreclen = model_.length = kMinimum + extra;
  }

  std::int32_t any_number() {
    const auto& records = model_.records;
    const int last = records.empty() ? 0 : records.rbegin()->first;
    return 1 + static_cast<std::int32_t>(any(last + 2U));
  }

  // Compares what a call and the model say: whether the call succeeded, as it should.
  template <typename... Call>
  bool check(const Answer& got, const Answer& expected, const Call&... call) {
    if (failed) return false;
    const std::string said = text("->", got.result, ::iserrno, "recnum", ::isrecnum, "reclen",
                                  ::isreclen, std::string{isstat1, isstat2, isstat3, isstat4});
    const std::string wanted = text("->", expected.result, model_.error, "recnum", model_.number,
                                    "reclen", model_.length, model_.status);
    last_calls_.push_back(text(call...) + said + (own_ ? " (writes failed)" : ""));
    if (last_calls_.size() > 12) last_calls_.pop_front();
    ++made;
    if (::iserrno == 0) ++good;
    if (said != wanted) {
      fail("expected" + wanted);
    } else if (::iserrno == 0 && got.told != expected.told) {
      fail("told other than" + testing::PrintToString(expected.told));
    }
    return ::iserrno == 0 && !failed;
  }

  void fail(const std::string& why) {
    failed = true;
    std::string calls;
    for (const std::string& call : last_calls_) calls += call + '\n';
    ADD_FAILURE() << "seed " << seed_ << ", call " << made << ", the last calls:\n" << calls << why;
  }

  const Shape& shape_;
  const std::vector<keydescr>& keys_ = shape_.keys;
  const int format_ = shape_.maximum > kMinimum ? ISVARLEN : 0;
  IsamModel model_{kMinimum, shape_.maximum, keys_};
  const unsigned seed_ = setting("KESTRO_MODEL_SEED", 1);
  std::mt19937 random_{seed_};
  TempFolder folder_;
  const std::string base_ = folder_ / "pair";
  std::vector<int> opens_ = std::vector<int>(shape_.locks.size(), -1);  // -1: closed
  std::int32_t unique_ = 1;
  decltype(common::SystemCalls::pread) other_pread_ = ::pread;
  bool own_ = false;  // a write of the last call failed
  // Whether the next call tells of a write that was delayed, and every close and flush.
  enum class Known { kNo, kPerhaps, kYes };
  Known owed_ = Known::kNo;
  Known lost_ = Known::kNo;
  Bytes last_read_;            // through any open
  std::int32_t fresh_ = 5000;  // the id given last to one of many new records
  std::deque<std::string> last_calls_;
};

const std::vector<Shape> kShapes = {
    {"NumbersOnly", kMinimum, {ISMANULOCK}, {key_of({})}},
    {"NumbersVarying",
     4500,
     {ISAUTOLOCK, ISEXCLLOCK},
     {key_of({}), key_of({kText}, KF_DUPS | KF_LCOMPRESS)}},
    {"Plain", kMinimum, {ISMANULOCK, ISAUTOLOCK}, {key_of({kId})}},
    {"TwoVarying",
     5200,
     {ISEXCLLOCK},
     {key_of({kText, kId}, KF_TCOMPRESS), key_of({kName}, KF_DUPS | KF_COMPRESS)}},
    {"DuplicatesFirst",
     kMinimum,
     {ISMANULOCK, ISEXCLLOCK, ISAUTOLOCK},
     {key_of({kRankDown, kName}, KF_DUPS), key_of({kName, kId}, KF_LCOMPRESS),
      key_of({kAmount}, KF_DUPS | KF_DCOMPRESS)}},
    {"ManyOpens",
     kMinimum,
     {ISMANULOCK, ISMANULOCK, ISMANULOCK, ISAUTOLOCK, ISMANULOCK, ISMANULOCK},
     {key_of({kId}, KF_LCOMPRESS), key_of({kRank}, KF_DUPS | KF_DCOMPRESS),
      key_of({kName, kText, kAmount}, KF_COMPRESS)},
     "4"},
    {"FourVarying",
     3300,
     {ISMANULOCK, ISMANULOCK, ISAUTOLOCK},
     {key_of({kId}), key_of({kTextDown}, KF_DUPS | KF_TCOMPRESS),
      key_of({kAmountDown, kRank}, KF_DUPS | KF_DCOMPRESS | KF_LCOMPRESS),
      key_of({kRank, kText, kAmount}, KF_COMPRESS)},
     "4"}};

// Each way of compression with keys of each kind, in nodes that hold few of their items.
std::vector<Shape> small_shapes() {
  std::vector<Shape> shapes;
  for (const int node_size : {128, 334}) {
    for (int flags = 0; flags < 16; ++flags) {
      const auto key = [flags](std::vector<keypart> parts) {
        if ((flags & KF_DUPS) == 0) parts.push_back(kId);
        return key_of(parts, flags);
      };
      std::string name = "Nodes" + std::to_string(node_size);
      for (const int flag : {KF_DUPS, KF_DCOMPRESS, KF_LCOMPRESS, KF_TCOMPRESS}) {
        if ((flags & flag) != 0) name += "-Dd-l---t"[flag];
      }
      const int lock = flags % 3 == 0 ? ISEXCLLOCK : ISMANULOCK;
      shapes.push_back(
          {name,
           kMinimum,
           {ISMANULOCK, lock},
           {key({kText}), key_of({kId}, flags), key({kRankDown, kName}), key({kAmount})},
           "16",
           node_size,
           setting("KESTRO_MODEL_CALLS", 20000) / 8});
    }
  }
  return shapes;
}

class Model : public testing::TestWithParam<Shape> {};

TEST_P(Model, AgreesOverLongScripts) {
  const unsigned calls = GetParam().calls;
  Script script{GetParam()};
  // Of a hundred calls so many write, so many delete: it grows, changes, shrinks, and once more.
  for (const auto& [writes, deletes] :
       {std::pair{50U, 10U}, {25U, 25U}, {5U, 60U}, {60U, 5U}, {20U, 40U}}) {
    script.run(calls / 5, writes, deletes);
    ASSERT_FALSE(script.failed);
  }
  EXPECT_GT(script.good, script.made / 3);
  EXPECT_GE(script.refused, calls / 2500);
}

INSTANTIATE_TEST_SUITE_P(Shapes, Model, testing::ValuesIn(kShapes),
                         [](const auto& test) { return test.param.name; });
INSTANTIATE_TEST_SUITE_P(SmallNodes, Model, testing::ValuesIn(small_shapes()),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace testing_support
