// model_operations: the library's calls on one pair, each drawn by chance, done, and compared with
// what a simple model of the pair says.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <set>
#include <utility>

#include "tests/isam/model_faults.h"
#include "tests/isam/model_shapes.h"
#include "tests/support/isam_model.h"
#include "tests/support/run_program.h"

namespace testing_support::model {

// One pair, the library's calls on it and the model.
class Operations : protected Chance {
 public:
  explicit Operations(const Shape& shape) : shape_(shape) {}
  Operations(const Operations&) = delete;
  Operations& operator=(const Operations&) = delete;

  bool failed = false;
  std::size_t made = 0, good = 0, refused = 0;  // calls, and those that succeeded or met a failure

 protected:
  // A result, and what a call that succeeds tells besides.
  struct Answer {
    int result;
    std::string told = {};
  };

  ~Operations() = default;
  // The last exclusive open could not write everything.
  virtual void mend() = 0;

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
    Bytes record = any_record(shape_.maximum);
    keydescr stored = k;
    const int got = ::isstart(isfd, &k, len, record.data(), mode);
    const int result = expected([&] { return model_.isstart(isfd, stored, len, record, mode); });
    check({got, text(k.flags)}, {result, text(stored.flags)}, "isstart", isfd, show(k), len,
          show(record), mode);
  }

  bool read(int isfd, int mode) {
    const Bytes wanted = any_record(shape_.maximum);
    Bytes got = wanted;
    Bytes record = wanted;
    const int result = ::isread(isfd, got.data(), mode);
    const int says = expected([&] { return model_.isread(isfd, record, mode); });
    if (result == 0) last_read_ = got;
    return check({result, got.substr(0, record.size())}, {says, record}, "isread", isfd,
                 show(wanted), std::hex, mode);
  }

  bool read_many(int isfd, int mode, std::size_t count) {
    Many many(count);
    for (Bytes& record : many.records) record = any_record(shape_.maximum);
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

  // Most of them have an id that no other has.
  Many many_new(std::size_t count) {
    Many many(count);
    for (Bytes& record : many.records) {
      record = any_record(shape_.maximum);
      if (!one_in(40)) ::stlong(++fresh_, &record[8]);
    }
    const int choice = shape_.maximum - kMinimum + 1;
    for (std::int32_t& length : many.lengths) {
      length = kMinimum + static_cast<int>(any(static_cast<std::size_t>(choice)));
    }
    return many;
  }

  // Writes that were refused are told by other calls. Meanwhile nothing shows and nobody changes.
  void load(int isfd, std::size_t count) {
    faults.what = Refused::kNone;
    if (lost_ != Known::kNo) return;
    Many many = many_new(count);
    for (unsigned twice = any(4); twice > 0; --twice) {
      many.records[any(count)] = many.records[any(count)];
    }
    Many said = many;
    recordset all = many.set(shape_.maximum);
    std::vector<std::int32_t> left_out(count), wanted;
    int got = ::isloadbegin(isfd);
    for (std::size_t at = 0, some = 0; got == 0 && at < count; at += some) {
      some = std::min<std::size_t>(count - at, 1 + any(99));
      const std::size_t room = some * static_cast<std::size_t>(shape_.maximum);
      recordset set{static_cast<std::int32_t>(some),
                    all.records + at * static_cast<std::size_t>(shape_.maximum), room,
                    all.numbers + at, all.lengths + at};
      if (::isload(isfd, &set) != set.count) fail("not all were taken");
      if (one_in(3) && (::isdelrec(isfd, 1) == 0 || ::iserrno != ISEINUSE)) fail("changed");
    }
    if (got == 0) got = ::isloadend(isfd, left_out.data(), static_cast<std::int32_t>(count));
    const int says = expected(
        [&] { return model_.isload(isfd, said.records, said.numbers, said.lengths, wanted); });
    left_out.resize(static_cast<std::size_t>(std::max(got, 0)));
    const bool same = left_out == wanted && (got < 0 || many.numbers == said.numbers);
    check({got, same ? "" : "other numbers"}, {says}, "isload", isfd, count);
    close_unsure();
  }

  // An exclusive open is not refused a write meanwhile: it may be told by any of the records.
  void write_many(int isfd, std::size_t count, bool rewrites) {
    if (model_.is_alone()) faults.what = Refused::kNone;
    Many many = many_new(count);
    for (std::size_t i = 0; rewrites && i < count; ++i) {
      many.numbers[i] = any_number();
      take_fields(many.records[i], many.numbers[i]);
    }
    Many said = many;
    recordset set = many.set(shape_.maximum);
    const int got = rewrites ? ::isrewritemany(isfd, &set) : ::iswritemany(isfd, &set);
    const auto writes = [&] {
      return rewrites ? model_.isrewritemany(isfd, said.records, said.numbers, said.lengths)
                      : model_.iswritemany(isfd, said.records, said.numbers, said.lengths);
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
    check({got, many.numbers == said.numbers ? "" : "other numbers"}, {says},
          rewrites ? "isrewritemany" : "iswritemany", isfd, count);
    close_unsure();
  }

  // Often a record as it was but for one field on, so that few other keys are in the way.
  void take_fields(Bytes& record, std::int32_t number) {
    const auto old = model_.records.lower_bound(number);
    const auto same = static_cast<std::size_t>(among({0, 8, 12, 14, 22, 34, kMinimum}));
    if (old != model_.records.end()) record.replace(0, same, old->second, 0, same);
  }

  // One of the calls that write (0, 1), rewrite (2 to 4) or delete (5 to 7) a record.
  void change(int isfd, int call) {
    const std::int32_t number = one_in(30) ? among({0, -1, INT32_MIN, INT32_MAX}) : any_number();
    Bytes record = any_record(shape_.maximum);
    if (call > 1) take_fields(record, number);
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

}  // namespace testing_support::model
