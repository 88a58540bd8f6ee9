// file: an open pair, and reading and writing its records. Part of isam.hpp.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "isam.h"
#include "isam/failures.hpp"
#include "isam/fields.hpp"
#include "isam/key.hpp"

namespace zentra {

enum class Access { kRead = ISINPUT, kWrite = ISOUTPUT, kReadWrite = ISINOUT };

// kManual: records are locked when asked for. kAutomatic: every record read is locked until the
// next call. kExclusive: no other process has the file open; building indexes needs it.
enum class Locking { kManual = ISMANULOCK, kAutomatic = ISAUTOLOCK, kExclusive = ISEXCLLOCK };

// What becomes of changes while a log is open (Log). kLogged: they stand at once. kTransactions:
// inside a Transaction they are part of it; needs a log. kUnlogged: the log does not hear of them;
// needs a log.
enum class Logging { kLogged = 0, kTransactions = ISTRANS, kUnlogged = ISNOLOG };

// Shortest and longest record of a file of variable-length records.
struct Lengths {
  int minimum;
  int maximum;
};

// Which record to read or to stand on.
enum class Move {
  kFirst = RD_FIRST,
  kLast = RD_LAST,
  kNext = RD_NEXT,
  kPrevious = RD_PREV,
  kCurrent = RD_CURR,
  kEqual = RD_EQUAL,
  kGreater = RD_GREAT,
  kGreaterOrEqual = RD_GTEQ,
};

// What a read does about locks. kTry and kPass give kLocked when another process has the record;
// with kPass Move::kNext and kPrevious go on behind it. kWait waits for it.
enum class Lock {
  kNone = 0,
  kTry = RD_LOCK,
  kPass = RD_LOCK + RD_SKIPLOCK,
  kWait = RD_LOCK + RD_WAIT,
};

class Range;

// An open pair; closed when it goes out of scope. It has one current key and one position, which
// find(), at(), start(), read() and ranges share. What fails unexpectedly throws Error.
class File {
 public:
  // Opens a pair, of fixed or variable length alike.
  [[nodiscard]] static File open(const std::string& name, Access access = Access::kReadWrite,
                                 Locking locking = Locking::kManual,
                                 Logging logging = Logging::kLogged) {
    auto file = open_if_there(name, access, locking, logging);
    if (!file) throw Error("isopen " + name);
    return std::move(*file);
  }

  // The same; no file when there is no such pair.
  [[nodiscard]] static std::optional<File> open_if_there(const std::string& name,
                                                         Access access = Access::kReadWrite,
                                                         Locking locking = Locking::kManual,
                                                         Logging logging = Logging::kLogged) {
    const int mode =
        static_cast<int>(access) + static_cast<int>(locking) + static_cast<int>(logging);
    bool variable = false;
    int isfd = isopen(name.c_str(), mode);
    if (isfd < 0 && iserrno == ISEARGUMENT && isstat3 == '3' && isstat4 == '9') {
      variable = true;
      isfd = isopen(name.c_str(), mode + ISVARLEN);
    }
    if (isfd < 0 && iserrno == ENOENT) return std::nullopt;
    if (isfd < 0) throw Error("isopen " + name);
    return File(isfd, isreclen, variable);
  }

  // Makes a pair with this primary key and opens it.
  [[nodiscard]] static File build(const std::string& name, int length, const Key& primary,
                                  Locking locking = Locking::kManual,
                                  Logging logging = Logging::kLogged) {
    return build_with(name, length, primary, static_cast<int>(locking) + static_cast<int>(logging));
  }
  [[nodiscard]] static File build(const std::string& name, Lengths lengths, const Key& primary,
                                  Locking locking = Locking::kManual,
                                  Logging logging = Logging::kLogged) {
    isreclen = lengths.minimum;
    return build_with(name, lengths.maximum, primary,
                      static_cast<int>(locking) + static_cast<int>(logging) + ISVARLEN);
  }

  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&& other) noexcept
      : isfd_(std::exchange(other.isfd_, -1)),
        length_(other.length_),
        variable_(other.variable_),
        moves_(other.moves_) {}
  File& operator=(File&& other) noexcept {
    File taken(std::move(other));
    std::swap(isfd_, taken.isfd_);
    std::swap(length_, taken.length_);
    std::swap(variable_, taken.variable_);
    std::swap(moves_, taken.moves_);
    return *this;
  }
  ~File() {
    if (isfd_ >= 0) isclose(isfd_);
  }

  // Closes now, so that a write that fails only then is told. No other call may follow.
  void close() { expect(isclose(std::exchange(isfd_, -1)), "isclose"); }
  // Hands what an exclusive open still holds to the operating system.
  void flush() { expect(isflush(isfd_), "isflush"); }
  // The number of this open, for calls of isam.h that this class leaves out.
  [[nodiscard]] int number() const noexcept { return isfd_; }

  // Adds an index and fills it; drops one. Both need Locking::kExclusive.
  void add_index(const Key& key) {
    keydescr description = key.description();
    expect(isaddindex(isfd_, &description), "isaddindex");
  }
  void drop_index(const Key& key) {
    keydescr description = key.description();
    expect(isdelindex(isfd_, &description), "isdelindex");
  }

  // Greatest length of a record, and whether records may be shorter.
  [[nodiscard]] int record_length() const noexcept { return length_; }
  [[nodiscard]] bool variable() const noexcept { return variable_; }
  // How many records there are, and how many indexes.
  [[nodiscard]] int records() const { return info().di_nrecords; }
  [[nodiscard]] int indexes() const { return info().di_nkeys & ~DI_VARLEN; }
  // Describes index `n`, from 1.
  [[nodiscard]] Key index(int n) const {
    keydescr description{};
    expect(iskeyinfo(isfd_, &description, n), "iskeyinfo");
    return Key(description);
  }
  // Raised by each change of a record or an index, whoever makes it (isstamp).
  [[nodiscard]] std::uint32_t stamp() const {
    std::uint32_t stamp = 0;
    expect(isstamp(isfd_, &stamp), "isstamp");
    return stamp;
  }
  // The next number of the file's own counter.
  [[nodiscard]] std::int32_t unique_id() {
    std::int32_t id = 0;
    expect(isuniqueid(isfd_, &id), "isuniqueid");
    return id;
  }

  // A record of blanks to fill in, as long as records get.
  [[nodiscard]] Record blank() const { return Record(static_cast<std::size_t>(length_)); }

  // The first record whose key begins with these values, one for each part from the first on; none
  // when there is no such record. Makes `key` current, and the record.
  template <typename... V>
  requires(sizeof...(V) > 0)
      [[nodiscard]] std::optional<Record> find(const Key& key, const V&... values) {
    if (start(key, Move::kEqual, values...) != Outcome::kDone) return std::nullopt;
    return read_or_none(Move::kCurrent);
  }
  // The record of this number. The order of record numbers becomes the current key.
  [[nodiscard]] std::optional<Record> at(std::int32_t number) {
    isrecnum = number;
    if (position(Key::record_order(), Move::kEqual, {}) != Outcome::kDone) return std::nullopt;
    return read_or_none(Move::kCurrent);
  }
  // The records in the order of `key`: see Range.
  [[nodiscard]] Range by(const Key& key);

  // Makes `key` current and stands on a record, without reading it. `move` is kFirst or kLast, or
  // with values one of kEqual, kGreater and kGreaterOrEqual. The next read with Move::kNext or
  // kCurrent gives the record; after kLast in an index only one with kPrevious does.
  template <typename... V>
  Outcome start(const Key& key, Move move, const V&... values) {
    const std::array<KeyValue, sizeof...(V)> wanted{KeyValue(values)...};
    return position(key, move, wanted);
  }
  // Reads in the order of the current key. A record that is locked here stays so until its lock is
  // released: see RecordLocks. Unless it is kDone, `record` and its number are of no use.
  Outcome read(Record& record, Move move, Lock lock = Lock::kNone) {
    if (move != Move::kCurrent) ++moves_;
    record.bytes_.resize(static_cast<std::size_t>(length_));
    const int mode = static_cast<int>(move) + static_cast<int>(lock);
    const Outcome outcome = outcome_of(isread(isfd_, record.bytes_.data(), mode), "isread");
    if (outcome == Outcome::kDone) {
      record.number_ = isrecnum;
      record.bytes_.resize(static_cast<std::size_t>(isreclen));
    }
    return outcome;
  }

  // Releases the lock of this record, and of no other (isrelrec).
  void release(const Record& record) const { expect(isrelrec(isfd_, record.number()), "isrelrec"); }

  // Adds a record; `record` gets its number. The position stays.
  Outcome add(Record& record) {
    const Outcome outcome = outcome_of(iswrite(isfd_, given(record)), "iswrite");
    if (outcome == Outcome::kDone) record.number_ = isrecnum;
    return outcome;
  }
  // Replaces, deletes the record that has this one's number. Where other processes write too, lock
  // it first. A loop over the file goes on from where the record stood.
  Outcome update(Record& record) {
    return outcome_of(isrewrec(isfd_, record.number(), given(record)), "isrewrec");
  }
  Outcome remove(const Record& record) {
    return outcome_of(isdelrec(isfd_, record.number()), "isdelrec");
  }

 private:
  friend class Range;

  File(int isfd, int length, bool variable) : isfd_(isfd), length_(length), variable_(variable) {}

  static File build_with(const std::string& name, int length, const Key& primary, int mode) {
    keydescr description = primary.description();
    const int isfd = isbuild(name.c_str(), length, &description, ISINOUT + mode);
    if (isfd < 0) throw Error("isbuild " + name);
    return File(isfd, length, (mode & ISVARLEN) != 0);
  }

  static void expect(int result, const char* call) {
    if (result < 0) throw Error(call);
  }

  static Outcome outcome_of(int result, const char* call) {
    if (result >= 0) return Outcome::kDone;
    switch (iserrno) {
      case ISEEND:
        return Outcome::kEnd;
      case ISENORECORD:
      case ISENOCURRENT:
        return Outcome::kNotFound;
      case ISELOCKED:
        return Outcome::kLocked;
      case ISEDUPLICATE:
        return Outcome::kDuplicate;
      default:
        throw Error(call);
    }
  }

  [[nodiscard]] dictinfo info() const {
    dictinfo all{};
    expect(isdictinfo(isfd_, &all), "isdictinfo");
    return all;
  }

  Outcome position(const Key& key, Move move, std::span<const KeyValue> values) {
    Record wanted = blank();
    const int length = store(wanted, key, values);
    ++moves_;
    keydescr description = key.description();
    return outcome_of(
        isstart(isfd_, &description, length, wanted.bytes_.data(), static_cast<int>(move)),
        "isstart");
  }

  // Puts values where the key has them: how many bytes of the key they are.
  static int store(Record& record, const Key& key, std::span<const KeyValue> values) {
    const auto parts = key.parts();
    if (values.size() > parts.size()) {
      throw std::invalid_argument("zentra: more values than the key has parts");
    }
    int length = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i].store(record.bytes(), parts[i]);
      length += parts[i].length;
    }
    return length;
  }

  std::optional<Record> read_or_none(Move move) {
    Record record = blank();
    switch (read(record, move)) {
      case Outcome::kDone:
        return record;
      case Outcome::kEnd:
      case Outcome::kNotFound:
        return std::nullopt;
      default:
        throw Error("isread");
    }
  }

  // Reads up to `count` records on from the position: how many, 0 at the end. The vectors are
  // filled as isreadmany() fills its arrays.
  int read_many(std::vector<char>& records, std::vector<std::int32_t>& numbers,
                std::vector<std::int32_t>& lengths, int count, Move move) {
    const auto size = static_cast<std::size_t>(count);
    records.resize(size * static_cast<std::size_t>(length_));
    numbers.resize(size);
    lengths.resize(size);
    ++moves_;
    recordset set{count, records.data(), records.size(), numbers.data(), lengths.data()};
    const int got = isreadmany(isfd_, &set, static_cast<int>(move));
    // A failure behind records that were read is told by the next call.
    if (got <= 0 && outcome_of(-1, "isreadmany") == Outcome::kLocked) throw Error("isreadmany");
    return std::max(got, 0);
  }
  // The record at a place of what read_many() has read.
  [[nodiscard]] Record record_from(const std::vector<char>& records, std::size_t at,
                                   std::int32_t number, std::int32_t length) const {
    Record record(static_cast<std::size_t>(length));
    std::copy_n(records.data() + at * static_cast<std::size_t>(length_), record.size(),
                record.bytes_.data());
    record.number_ = number;
    return record;
  }

  // The record's bytes for a writing call. Sets isreclen, by which the call knows their length.
  char* given(Record& record) const {
    if (!variable_ && record.size() != static_cast<std::size_t>(length_)) {
      throw std::invalid_argument("zentra: record of another length than the file's");
    }
    isreclen = static_cast<std::int32_t>(std::min<std::size_t>(record.size(), INT32_MAX));
    return record.bytes_.data();
  }

  int isfd_;
  int length_;
  bool variable_;
  std::size_t moves_ = 0;  // times that the position was moved; a Range notices others' by it
};

}  // namespace zentra
