// isam.hpp: the indexed-file library for C++20, a thin header-only layer on isam.h.
//
// It owns opens and locks (they end with their scope), types the fields of records and the parts of
// keys, turns unexpected failures into exceptions and leaves the expected ones as results:
//
//   constexpr zentra::Text<0, 8> number;
//   constexpr zentra::Text<8, 24> name;
//   constexpr zentra::Int32<32> orders;
//   constexpr auto by_number = zentra::Key::of(number);
//   constexpr auto by_name = zentra::Key::of(name).duplicates().compressed();
//
//   auto file = zentra::File::open("customer");
//   if (auto found = file.find(by_number, "00000042")) std::cout << found->get(name);
//   for (auto record : file.by(by_name).from("M")) std::cout << record.get(orders);
//
// As with isam.h, one thread of a process uses the library at a time, and locks belong to the
// process. Offsets and lengths are bytes; record numbers count from 1.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "isam.h"

namespace zentra {

// ------------------------------------------------------------------------------------- failures --

// A call of the library failed in a way that the caller did not have to expect.
class Error : public std::runtime_error {
 public:
  // Takes over what iserrno, iserrio and the status characters say of the last call.
  explicit Error(std::string call) : Error(std::move(call), iserrno) {}

  // Reason: the system's errno value below 100, from 100 on one of the codes ISE... of isam.h.
  [[nodiscard]] int code() const noexcept { return code_; }
  // The operation and file of a failed system call as in iserrio, or 0.
  [[nodiscard]] int place() const noexcept { return place_; }
  // The four status characters.
  [[nodiscard]] std::string_view status() const noexcept { return {status_.data(), 4}; }
  // The call that failed, with the pair's name if it took one.
  [[nodiscard]] const std::string& call() const noexcept { return call_; }

 private:
  Error(std::string call, int code)
      : std::runtime_error(call + ": " + iserrtext(code) + " (" + std::to_string(code) + ")"),
        call_(std::move(call)),
        code_(code) {}

  std::string call_;
  int code_;
  int place_ = iserrio;
  std::array<char, 4> status_{isstat1, isstat2, isstat3, isstat4};
};

// How a call ended that did not throw.
enum class [[nodiscard]] Outcome{
    kDone,
    kEnd,        // before the first or behind the last record
    kNotFound,   // no such record, or the current one is gone
    kLocked,     // another process has it locked
    kDuplicate,  // a key that may occur once does already; nothing has changed
};

// --------------------------------------------------------------------------------------- fields --

namespace detail {

// The bytes of one field. Throws std::out_of_range for a record that ends before.
template <typename Byte>
std::span<Byte> bytes_of_field(std::span<Byte> record, std::size_t offset, std::size_t length) {
  if (offset > record.size() || length > record.size() - offset) {
    throw std::out_of_range("zentra: the record ends before the field");
  }
  return record.subspan(offset, length);
}

inline void store_text(std::span<char> field, std::string_view text) {
  if (text.size() > field.size()) throw std::length_error("zentra: text longer than its field");
  std::fill(std::copy(text.begin(), text.end(), field.begin()), field.end(), ' ');
}

inline void load(const char* from, std::int16_t& value) { value = ldint(from); }
inline void load(const char* from, std::int32_t& value) { value = ldlong(from); }
inline void load(const char* from, double& value) { value = lddbl(from); }
inline void load(const char* from, float& value) { value = ldfloat(from); }
inline void store(std::int16_t value, char* to) { stint(value, to); }
inline void store(std::int32_t value, char* to) { stlong(value, to); }
inline void store(double value, char* to) { stdbl(to, value); }
inline void store(float value, char* to) { stfloat(to, value); }

template <typename Stored, int Offset, int Type>
struct Number {
  static_assert(Offset >= 0 && Offset + int{sizeof(Stored)} <= INT16_MAX);
  static constexpr int offset = Offset;
  static constexpr int length = sizeof(Stored);
  static constexpr int type = Type;

  [[nodiscard]] static Stored get(std::span<const char> record) {
    Stored value;
    load(bytes_of_field(record, offset, length).data(), value);
    return value;
  }
  static void set(std::span<char> record, Stored value) {
    store(value, bytes_of_field(record, offset, length).data());
  }
};

}  // namespace detail

// Characters, padded with blanks. Reading cuts the padding off; a text that is too long throws
// std::length_error. All fields throw std::out_of_range where a variable record ends before them.
template <int Offset, int Length>
struct Text {
  static_assert(Offset >= 0 && Length > 0 && Offset + Length <= INT16_MAX);
  static constexpr int offset = Offset;
  static constexpr int length = Length;
  static constexpr int type = KT_CHAR;

  [[nodiscard]] static std::string get(std::span<const char> record) {
    const auto field = detail::bytes_of_field(record, offset, length);
    const std::string_view text{field.data(), field.size()};
    return std::string(text.substr(0, text.find_last_not_of(' ') + 1));
  }
  static void set(std::span<char> record, std::string_view text) {
    detail::store_text(detail::bytes_of_field(record, offset, length), text);
  }
};

// Signed numbers of 2 and 4 bytes, most significant byte first.
template <int Offset>
using Int16 = detail::Number<std::int16_t, Offset, KT_INT>;
template <int Offset>
using Int32 = detail::Number<std::int32_t, Offset, KT_LONG>;
// Floating-point numbers in the machine's form, of 8 and 4 bytes.
template <int Offset>
using Double = detail::Number<double, Offset, KT_DOUBLE>;
template <int Offset>
using Float = detail::Number<float, Offset, KT_FLOAT>;

// Any of the above, or a type of the application's with the same members.
template <typename T>
concept Field = requires(std::span<const char> record) {
  { T::offset } -> std::convertible_to<int>;
  { T::length } -> std::convertible_to<int>;
  { T::type } -> std::convertible_to<int>;
  T::get(record);
};

// A record in memory: its bytes, and its number once it has been read or added.
class Record {
 public:
  // All blanks: texts are empty, numbers must be set.
  explicit Record(std::size_t length) : bytes_(length, ' ') {}

  template <Field F>
  [[nodiscard]] auto get(F /*field*/) const {
    return F::get(bytes());
  }
  template <Field F, typename V>
  Record& set(F /*field*/, const V& value) {
    F::set(bytes(), value);
    return *this;
  }

  [[nodiscard]] std::span<const char> bytes() const { return bytes_; }
  [[nodiscard]] std::span<char> bytes() { return bytes_; }
  [[nodiscard]] std::size_t size() const { return bytes_.size(); }
  // Changes the length of a record of variable length; new bytes are blanks.
  void resize(std::size_t length) { bytes_.resize(length, ' '); }
  // 0 for a record that is not in a file.
  [[nodiscard]] std::int32_t number() const { return number_; }

 private:
  friend class File;

  std::vector<char> bytes_;
  std::int32_t number_ = 0;
};

// ----------------------------------------------------------------------------------------- keys --

// Describes an index. Each call of the builder returns a new description; a key of more than
// MAXPARTS parts throws std::length_error. The library checks the rest when the index is made.
class Key {
 public:
  // A key, still without parts, that a record does not share with another.
  [[nodiscard]] static constexpr Key unique() { return Key{}; }
  // The same, over these fields.
  template <Field... F>
  [[nodiscard]] static constexpr Key of(F... fields) {
    Key key;
    ((key = key.field(fields)), ...);
    return key;
  }
  // The order of record numbers, which needs no index.
  [[nodiscard]] static constexpr Key record_order() { return Key{}; }

  constexpr Key() = default;
  // A description as isam.h has it, for instance of an index of a file.
  constexpr explicit Key(const keydescr& description) : key_(description) {}

  template <Field F>
  [[nodiscard]] constexpr Key field(F /*field*/) const {
    return part(F::offset, F::length, F::type);
  }
  // Characters in the order of their bytes, or of the client's locale.
  [[nodiscard]] constexpr Key text(int offset, int length) const {
    return part(offset, length, KT_CHAR);
  }
  [[nodiscard]] constexpr Key locale_text(int offset, int length) const {
    return part(offset, length, KT_LOCALE);
  }
  // Numbers as the fields Int16, Int32, Double and Float store them.
  [[nodiscard]] constexpr Key integer(int offset) const { return part(offset, 2, KT_INT); }
  [[nodiscard]] constexpr Key long_integer(int offset) const { return part(offset, 4, KT_LONG); }
  [[nodiscard]] constexpr Key double_number(int offset) const { return part(offset, 8, KT_DOUBLE); }
  [[nodiscard]] constexpr Key float_number(int offset) const { return part(offset, 4, KT_FLOAT); }

  // The part added last sorts from the greatest down.
  [[nodiscard]] constexpr Key descending() const {
    if (key_.nparts == 0) throw std::length_error("zentra: descending() needs a key part");
    Key key = *this;
    keypart& last = key.key_.part[key_.nparts - 1];
    last.type = static_cast<std::int16_t>(last.type | KT_DESC);
    return key;
  }
  // Records may share the key after all.
  [[nodiscard]] constexpr Key duplicates() const { return flagged(KF_DUPS); }
  // The index stores keys in short.
  [[nodiscard]] constexpr Key compressed() const { return flagged(KF_COMPRESS); }

  [[nodiscard]] constexpr const keydescr& description() const { return key_; }
  [[nodiscard]] constexpr std::span<const keypart> parts() const {
    return std::span<const keypart>(key_.part).first(static_cast<std::size_t>(key_.nparts));
  }

 private:
  [[nodiscard]] constexpr Key part(int offset, int length, int type) const {
    if (key_.nparts == MAXPARTS) throw std::length_error("zentra: too many key parts");
    if (!std::in_range<std::int16_t>(offset) || !std::in_range<std::int16_t>(length)) {
      throw std::length_error("zentra: key part beyond any record");
    }
    Key key = *this;
    key.key_.part[key.key_.nparts++] = {static_cast<std::int16_t>(offset),
                                        static_cast<std::int16_t>(length),
                                        static_cast<std::int16_t>(type)};
    return key;
  }
  [[nodiscard]] constexpr Key flagged(int flags) const {
    Key key = *this;
    key.key_.flags = static_cast<std::int16_t>(key_.flags | flags);
    return key;
  }

  keydescr key_{};
};

// A value to look for in one part of a key. A text refers to the caller's characters.
class KeyValue {
 public:
  template <typename T>
  requires std::convertible_to<const T&, std::string_view> KeyValue(const T& text)
      : value_(std::string_view(text)) {}
  template <std::integral T>
  KeyValue(T number) : value_(checked<std::int64_t>(number)) {}
  template <std::floating_point T>
  KeyValue(T number) : value_(static_cast<double>(number)) {}

  // Stores the value as the part wants it. Throws std::invalid_argument for a text in place of a
  // number or the other way round, std::out_of_range and std::length_error for what does not fit.
  void store(std::span<char> record, const keypart& part) const {
    const auto field = detail::bytes_of_field(record, static_cast<std::size_t>(part.start),
                                              static_cast<std::size_t>(part.length));
    switch (part.type & ~KT_DESC) {
      case KT_CHAR:
      case KT_LOCALE:
        return detail::store_text(field, as<std::string_view>());
      case KT_INT:
        return detail::store(checked<std::int16_t>(as<std::int64_t>()), field.data());
      case KT_LONG:
        return detail::store(checked<std::int32_t>(as<std::int64_t>()), field.data());
      case KT_DOUBLE:
        return detail::store(as_number(), field.data());
      case KT_FLOAT:
        return detail::store(static_cast<float>(as_number()), field.data());
      default:
        throw std::invalid_argument("zentra: no values for key parts with a collating table");
    }
  }

 private:
  template <std::integral To, std::integral From>
  static To checked(From number) {
    if constexpr (!std::same_as<From, bool> && !std::same_as<From, char>) {
      if (!std::in_range<To>(number)) throw std::out_of_range("zentra: number beyond its field");
    }
    return static_cast<To>(number);
  }
  template <typename T>
  [[nodiscard]] const T& as() const {
    if (const T* value = std::get_if<T>(&value_)) return *value;
    throw std::invalid_argument("zentra: value of another type than its key part");
  }
  [[nodiscard]] double as_number() const {
    const auto* whole = std::get_if<std::int64_t>(&value_);
    return whole != nullptr ? static_cast<double>(*whole) : as<double>();
  }

  std::variant<std::string_view, std::int64_t, double> value_;
};

// ---------------------------------------------------------------------------------------- files --

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
  // The next number of the file's own counter.
  [[nodiscard]] std::int32_t unique_id() {
    std::int32_t id = 0;
    expect(isuniqueid(isfd_, &id), "isuniqueid");
    return id;
  }

  // A record of blanks to fill in, as long as records get.
  [[nodiscard]] Record blank() const { return Record(static_cast<std::size_t>(length_)); }

  // The first record whose key begins with these values, one for each part from the first on.
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

  // Makes `key` current and stands on a record, without reading it: the next read with Move::kNext
  // or kCurrent gives it. `move` is kFirst, kLast, or with values one of kEqual, kGreater and
  // kGreaterOrEqual.
  template <typename... V>
  Outcome start(const Key& key, Move move, const V&... values) {
    const std::array<KeyValue, sizeof...(V)> wanted{KeyValue(values)...};
    return position(key, move, wanted);
  }
  // Reads in the order of the current key. A record that is locked here stays so until its lock is
  // released: see RecordLocks.
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

  // Adds a record, which gets its number. The position stays.
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

  // The record's bytes for a writing call, which takes the length of the record from isreclen.
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
  std::size_t moves_ = 0;  // times that the position was moved
};

// The records of a file in the order of a key, each read when the loop comes to it:
//
//   for (auto record : file.by(key))                       all
//   for (auto record : file.by(key).from("M"))             key values greater or equal
//   for (auto record : file.by(key).equal("Meier"))        key values equal
//   for (auto record : file.by(key).from("M").backwards()) values less or equal, the last first
//
// Fewer values than the key has parts stand for the first parts. The loop may add, update and
// remove records; moving the file's position meanwhile ends it with std::logic_error. The file must
// stay where it is in memory. A record that is locked (Locking::kAutomatic) throws Error.
class Range {
 public:
  class Iterator {
   public:
    using iterator_concept = std::input_iterator_tag;
    using value_type = Record;
    using difference_type = std::ptrdiff_t;

    explicit Iterator(Range& range) : range_(&range) {}
    const Record& operator*() const { return *range_->record_; }
    const Record* operator->() const { return &*range_->record_; }
    Iterator& operator++() {
      range_->advance();
      return *this;
    }
    void operator++(int) { range_->advance(); }
    bool operator==(std::default_sentinel_t /*end*/) const { return !range_->record_; }

   private:
    Range* range_;
  };

  // Only records from these key values on: upwards, or downwards if the range goes backwards.
  template <typename... V>
  requires(sizeof...(V) > 0) [[nodiscard]] Range from(const V&... values) const {
    return limited(false, std::array{KeyValue(values)...});
  }
  // Only records with these key values.
  template <typename... V>
  requires(sizeof...(V) > 0) [[nodiscard]] Range equal(const V&... values) const {
    return limited(true, std::array{KeyValue(values)...});
  }
  // The last record first.
  [[nodiscard]] Range backwards() const {
    Range range = *this;
    range.step_ = Move::kPrevious;
    return range;
  }

  // Positions the file and reads the first record.
  [[nodiscard]] Iterator begin() {
    const bool found = start();
    moves_ = file_->moves_;
    record_.reset();
    if (found) advance();
    return Iterator(*this);
  }
  [[nodiscard]] static std::default_sentinel_t end() { return {}; }

 private:
  friend class File;

  Range(File& file, const Key& key) : file_(&file), key_(key), wanted_(file.blank()) {}

  [[nodiscard]] Range limited(bool equal, std::span<const KeyValue> values) const {
    Range range = *this;
    range.length_ = File::store(range.wanted_, key_, values);
    range.parts_ = values.size();
    range.equal_ = equal;
    return range;
  }

  bool start_at(Move move) {
    keydescr description = key_.description();
    ++file_->moves_;
    const int started = isstart(file_->isfd_, &description, length_, wanted_.bytes().data(),
                                static_cast<int>(move));
    return File::outcome_of(started, "isstart") == Outcome::kDone;
  }

  bool start() {
    const bool back = step_ == Move::kPrevious;
    if (parts_ == 0) return start_at(back ? Move::kLast : Move::kFirst);
    if (!back) return start_at(equal_ ? Move::kEqual : Move::kGreaterOrEqual);
    // The step back from the first record beyond; without one, from the end.
    return start_at(Move::kGreater) || start_at(Move::kLast);
  }

  void advance() {
    if (moves_ != file_->moves_) {
      record_.reset();
      throw std::logic_error("zentra: the file was positioned elsewhere in a loop over it");
    }
    record_ = file_->read_or_none(step_);
    moves_ = file_->moves_;
    if (record_ && equal_ && !has_wanted_key(*record_)) record_.reset();
  }

  [[nodiscard]] bool has_wanted_key(const Record& record) const {
    const auto parts = key_.parts().first(parts_);
    return std::all_of(parts.begin(), parts.end(), [&](const keypart& part) {
      const char* a = wanted_.bytes().data() + part.start;
      const char* b = record.bytes().data() + part.start;
      switch (part.type & ~KT_DESC) {
        case KT_DOUBLE:
          return lddbl(a) == lddbl(b);
        case KT_FLOAT:
          return ldfloat(a) == ldfloat(b);
        default:
          return std::memcmp(a, b, static_cast<std::size_t>(part.length)) == 0;
      }
    });
  }

  File* file_;
  Key key_;
  Record wanted_;
  int length_ = 0;
  std::size_t parts_ = 0;  // parts of the key that have a value in wanted_
  bool equal_ = false;
  Move step_ = Move::kNext;
  std::optional<Record> record_;
  std::size_t moves_ = 0;
};

inline Range File::by(const Key& key) { return {*this, key}; }

// ---------------------------------------------------------------------------------------- locks --

// Releases at the end of its scope all records of a file that this process has locked by reading
// them. The file must stay open until then.
class RecordLocks {
 public:
  explicit RecordLocks(const File& file) : isfd_(file.number()) {}
  RecordLocks(const RecordLocks&) = delete;
  RecordLocks& operator=(const RecordLocks&) = delete;
  ~RecordLocks() { isrelease(isfd_); }

 private:
  int isfd_;
};

// Holds a lock on a whole file of Locking::kManual against other processes, if none of them has a
// lock in it: test it before use. Its end also releases the file's record locks.
class FileLock {
 public:
  explicit FileLock(const File& file) : isfd_(file.number()), held_(islock(isfd_) == 0) {
    if (!held_ && iserrno != ISELOCKED) throw Error("islock");
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock() {
    if (held_) isunlock(isfd_);
  }

  [[nodiscard]] explicit operator bool() const noexcept { return held_; }

 private:
  int isfd_;
  bool held_;
};

// -------------------------------------------------------------------------------- transactions --

// Keeps the process's log open. There is one at a time; files of Logging::kTransactions and
// kUnlogged are opened after it.
//
//   zentra::Log log("changes.log");
//   auto accounts = File::open("accounts", Access::kReadWrite, Locking::kManual,
//                              Logging::kTransactions);
//   zentra::Transaction transaction;
//   ...                              what throws or returns here undoes it all
//   transaction.commit();
class Log {
 public:
  // The file must exist; an empty one becomes a log.
  explicit Log(const std::string& path) {
    if (islogopen(path.c_str()) < 0) throw Error("islogopen " + path);
  }
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log() {
    if (open_) islogclose();
  }

  // Closes now, so that a failure is told.
  void close() {
    if (std::exchange(open_, false) && islogclose() < 0) throw Error("islogclose");
  }

 private:
  bool open_ = true;
};

// A transaction of the process, in all its files of Logging::kTransactions: undone at the end of
// its scope unless it has been committed. It has its scope within that of the Log. A second one at
// the same time throws std::logic_error.
class Transaction {
 public:
  Transaction() {
    if (running_) throw std::logic_error("zentra: a transaction within a transaction");
    if (isbegin() < 0) throw Error("isbegin");
    running_ = true;
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (!open_) return;
    isrollback();
    end();
  }

  // The changes stand. When it throws with ISELOGWRITE the transaction is still open.
  void commit() {
    expect_open();
    const bool done = iscommit() == 0;
    if (done || iserrno != ISELOGWRITE) end();
    if (!done) throw Error("iscommit");
  }
  // Undoes the changes now, so that a failure is told.
  void roll_back() {
    expect_open();
    end();
    if (isrollback() < 0) throw Error("isrollback");
  }

 private:
  void expect_open() const {
    if (!open_) throw std::logic_error("zentra: the transaction has ended");
  }
  void end() { open_ = running_ = false; }

  inline static bool running_ = false;
  bool open_ = true;
};

// Name and number of the library's version.
[[nodiscard]] inline std::string_view version() { return isversion(); }

}  // namespace zentra
