// logformat: the transaction log on disk, byte for byte.
//
// A log starts with a magic number; records follow back to back, each one
//
//   0 length L  2 two letters  4 process  8 user  10 time
//   14 offset of the previous record in the process's chain  22 length of that record
//   24 payload, by type  L - 2 length L again
//
// Integers are big-endian. Only transaction marks and the images of changes made in transaction
// mode are linked: each names the one that its process linked before it, the first of all none. So
// each process has a chain, which a rollback follows from its newest record. All other records have
// zeros at 14 and 22.
//
// Gives   the one place that knows offsets: building records, and taking them apart
// Never   trusts a record's lengths: what does not lie within it is not there
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "common/bytes.h"
#include "isam.h"

namespace isam::txlog {

using common::Byte;
using common::Bytes;
using common::ConstBytes;

inline constexpr std::uint32_t kLogMagic = 0xFB859E78;
inline constexpr int kMagicSize = 4;

enum class LogType : int {
  kUnknown = 0,
  kBegin = 1,          // BW
  kCommit = 2,         // CW
  kRollback = 3,       // RW
  kDelete = 4,         // DE
  kInsert = 5,         // IN
  kUpdate = 6,         // UP
  kVS = 7,             // VS, never written
  kOpened = 9,         // FO
  kClosed = 10,        // FC
  kCheckpoint = 11,    // CP, never written
  kBuilt = 12,         // BU
  kErased = 13,        // ER
  kIndexAdded = 15,    // CI
  kIndexDropped = 16,  // DI
  kEnd = 17,           // EN, never written
  kRenamed = 18,       // RE
  kUniqueSet = 19,     // SU
  kUniqueTaken = 20,   // UN
  kClustered = 22,     // CL
  kMessage = 23,       // LM, in the error log of a recovery
  kSP = 24,            // SP, never written
};

namespace log_record {
inline constexpr int kLength = 0;
inline constexpr int kType = 2;
inline constexpr int kProcess = 4;
inline constexpr int kUser = 8;
inline constexpr int kTime = 10;
inline constexpr int kPreviousOffset = 14;
inline constexpr int kPreviousLength = 22;
inline constexpr int kPayload = 24;
inline constexpr int kTrailer = 2;
inline constexpr int kSmallest = kPayload + kTrailer;
inline constexpr int kGreatest = 65535;
}  // namespace log_record

// The two letters of a type, null for kUnknown.
[[nodiscard]] const char* letters_of(LogType type);
// The type that two letters stand for; kUnknown with iserrno 119 for any others.
[[nodiscard]] LogType getlogtype(const Byte* letters);

// Whether records of this type hold images of a data record.
[[nodiscard]] constexpr bool is_image(LogType type) {
  return type == LogType::kDelete || type == LogType::kInsert || type == LogType::kUpdate;
}

// DE, IN, UP.
struct Image {
  int open = 0;  // the writer's number of the open file
  std::int32_t number = 0;
  ConstBytes old_image;  // none of an insertion
  ConstBytes new_image;  // none of a deletion
};

// A record being built. Numbers that depend on the moment of writing are filled in then.
class LogRecordBuilder {
 public:
  // Starts a record behind what the buffer holds.
  LogRecordBuilder(std::vector<Byte>& buffer, LogType type);
  void put_word(int value);
  void put_long(std::int32_t value);
  void put_bytes(ConstBytes bytes);
  // With the zero byte that ends it.
  void put_name(std::string_view name);
  void put_key(const keydescr& key);
  // All of the payload of a deletion, an insertion or a rewrite.
  void put_image(LogType type, const Image& image);
  // Ends the record: its length goes to both ends. False when it would be longer than a record may.
  [[nodiscard]] bool finish();

 private:
  std::vector<Byte>& buffer_;
  std::size_t start_;
};

// What a linked record refers to.
struct Link {
  std::int64_t offset = 0;
  int length = 0;
};

// Fills the header fields that depend on the moment of writing.
void stamp_record(Byte* at, std::int32_t process, int user, std::int32_t time, Link previous);

// FO, FC.
struct FileNamed {
  int open = 0;
  bool varlen = false;
  std::string_view name;
};
// BU.
struct Built {
  int mode = 0;
  int minimum = 0;  // isreclen when the file was built
  int reclen = 0;
  keydescr key{};
  std::string_view name;
};
// CI, DI, CL.
struct IndexChange {
  int open = 0;
  keydescr key{};
};
// RE.
struct Renamed {
  std::string_view from;
  std::string_view to;
};
// SU, UN.
struct UniqueId {
  int open = 0;
  std::optional<std::int32_t> id;  // none when the payload ends before it
};

// Makes a whole record one of the opposite change, with the same link: an insertion of a deletion
// and the other way round, a rewrite back, an index dropped of one added, a file erased of one
// built. False for what has no opposite.
[[nodiscard]] bool make_opposite(std::vector<Byte>& bytes);

// A view of one whole record.
class LogRecord {
 public:
  LogRecord() = default;
  // `bytes` holds the record from its start, at least its header.
  explicit LogRecord(ConstBytes bytes) : bytes_(bytes) {}

  // Whether there is one.
  explicit operator bool() const { return !bytes_.empty(); }
  [[nodiscard]] ConstBytes bytes() const { return bytes_; }
  // What the header says; 0 to 65535.
  [[nodiscard]] int length() const { return common::ldword(&bytes_[log_record::kLength]); }
  // Whether both ends say the same length, one that a record can have. bytes() holds the whole
  // record, or kSmallest bytes of it when length() is less.
  [[nodiscard]] bool is_sound() const {
    return length() >= log_record::kSmallest &&
           common::ldword(&bytes_[static_cast<std::size_t>(length() - log_record::kTrailer)]) ==
               length();
  }
  [[nodiscard]] LogType type() const { return getlogtype(&bytes_[log_record::kType]); }
  [[nodiscard]] std::string_view letters() const {
    return {reinterpret_cast<const char*>(&bytes_[log_record::kType]), 2};
  }
  [[nodiscard]] std::int32_t process() const {
    return common::ldlong(&bytes_[log_record::kProcess]);
  }
  [[nodiscard]] int user() const { return common::ldword(&bytes_[log_record::kUser]); }
  [[nodiscard]] std::int32_t time() const { return common::ldlong(&bytes_[log_record::kTime]); }
  [[nodiscard]] Link previous() const;
  [[nodiscard]] bool is_linked() const { return previous().length != 0; }

  // The payload, taken apart as the type says; nothing when it does not fit into the record, or, of
  // an image, when there is no record.
  [[nodiscard]] std::optional<Image> image() const;
  [[nodiscard]] std::optional<FileNamed> file_named() const;
  [[nodiscard]] std::optional<Built> built() const;
  [[nodiscard]] std::optional<std::string_view> erased() const;
  [[nodiscard]] std::optional<IndexChange> index_change() const;
  [[nodiscard]] std::optional<Renamed> renamed() const;
  [[nodiscard]] std::optional<UniqueId> unique_id() const;
  // The number of the open file that the record is about, if it is about one.
  [[nodiscard]] std::optional<int> open_number() const;

 private:
  [[nodiscard]] ConstBytes payload() const;

  ConstBytes bytes_;
};

}  // namespace isam::txlog
