#include "isam/log/logformat.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include "isam/base/errors.h"

namespace isam::txlog {
namespace {

// Lengths of images stand in a payload behind the open and the number.
constexpr std::size_t kImageLengths = 6;

struct Letters {
  LogType type;
  const char* text;
};

constexpr std::array kLetters = {
    Letters{LogType::kBegin, "BW"},      Letters{LogType::kCommit, "CW"},
    Letters{LogType::kRollback, "RW"},   Letters{LogType::kDelete, "DE"},
    Letters{LogType::kInsert, "IN"},     Letters{LogType::kUpdate, "UP"},
    Letters{LogType::kVS, "VS"},         Letters{LogType::kOpened, "FO"},
    Letters{LogType::kClosed, "FC"},     Letters{LogType::kCheckpoint, "CP"},
    Letters{LogType::kBuilt, "BU"},      Letters{LogType::kErased, "ER"},
    Letters{LogType::kIndexAdded, "CI"}, Letters{LogType::kIndexDropped, "DI"},
    Letters{LogType::kEnd, "EN"},        Letters{LogType::kRenamed, "RE"},
    Letters{LogType::kUniqueSet, "SU"},  Letters{LogType::kUniqueTaken, "UN"},
    Letters{LogType::kClustered, "CL"},  Letters{LogType::kMessage, "LM"},
    Letters{LogType::kSP, "SP"},
};

// Takes a payload apart from its start. Once something was asked for that it does not hold, all
// else is empty or 0, and there is no result.
class Reader {
 public:
  explicit Reader(ConstBytes payload) : rest_(payload) {}

  int word() {
    const ConstBytes at = bytes(2);
    return sound_ ? common::ldword(at.data()) : 0;
  }
  std::int32_t number() {
    const ConstBytes at = bytes(4);
    return sound_ ? common::ldlong(at.data()) : 0;
  }
  ConstBytes bytes(int count) {
    if (count < 0 || static_cast<std::size_t>(count) > rest_.size()) sound_ = false;
    if (!sound_) return {};
    const ConstBytes taken = rest_.first(static_cast<std::size_t>(count));
    rest_ = rest_.subspan(static_cast<std::size_t>(count));
    return taken;
  }
  std::string_view name() {
    const auto end = std::ranges::find(rest_, Byte{0});
    if (end == rest_.end()) sound_ = false;
    if (!sound_) return {};
    const auto length = static_cast<std::size_t>(end - rest_.begin());
    const std::string_view text{reinterpret_cast<const char*>(rest_.data()), length};
    rest_ = rest_.subspan(length + 1);
    return text;
  }
  // Flags, number of parts, key length, parts.
  keydescr key() {
    keydescr key{};
    key.flags = static_cast<std::int16_t>(word());
    const int parts = word();
    key.keylen = static_cast<std::int16_t>(word());
    if (parts > MAXPARTS) sound_ = false;
    if (!sound_) return key;
    key.nparts = static_cast<std::int16_t>(parts);
    for (int i = 0; i < parts; ++i) {
      keypart& part = key.part[i];
      part.start = static_cast<std::int16_t>(word());
      part.length = static_cast<std::int16_t>(word());
      part.type = static_cast<std::int16_t>(word());
    }
    return key;
  }

  template <typename T>
  std::optional<T> result(const T& value) const {
    return sound_ ? std::optional<T>{value} : std::nullopt;
  }
  [[nodiscard]] std::size_t left() const { return rest_.size(); }

 private:
  ConstBytes rest_;
  bool sound_ = true;
};

}  // namespace

const char* letters_of(LogType type) {
  const auto* const found = std::ranges::find(kLetters, type, &Letters::type);
  return found == kLetters.end() ? nullptr : found->text;
}

LogType getlogtype(const Byte* letters) {
  for (const Letters& known : kLetters) {
    if (std::memcmp(known.text, letters, 2) == 0) return known.type;
  }
  failed(kBadLogRecord);
  return LogType::kUnknown;
}

LogRecordBuilder::LogRecordBuilder(std::vector<Byte>& buffer, LogType type)
    : buffer_(buffer), start_(buffer.size()) {
  buffer_.resize(start_ + log_record::kPayload);
  std::memcpy(&buffer_[start_ + log_record::kType], letters_of(type), 2);
}

void LogRecordBuilder::put_word(int value) {
  Byte bytes[2];
  common::stword(static_cast<std::uint32_t>(value), bytes);
  put_bytes(bytes);
}

void LogRecordBuilder::put_long(std::int32_t value) {
  Byte bytes[4];
  common::stlong(value, bytes);
  put_bytes(bytes);
}

void LogRecordBuilder::put_bytes(ConstBytes bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

void LogRecordBuilder::put_name(std::string_view name) {
  put_bytes({reinterpret_cast<const Byte*>(name.data()), name.size()});
  buffer_.push_back(0);
}

void LogRecordBuilder::put_key(const keydescr& key) {
  put_word(key.flags);
  put_word(key.nparts);
  put_word(key.keylen);
  for (int i = 0; i < key.nparts; ++i) {
    put_word(key.part[i].start);
    put_word(key.part[i].length);
    put_word(key.part[i].type);
  }
}

void LogRecordBuilder::put_image(LogType type, const Image& image) {
  Byte head[kImageLengths + 4];
  std::size_t length = kImageLengths;
  const auto put_length = [&](ConstBytes bytes) {
    common::stword(static_cast<std::uint32_t>(bytes.size()), head + length);
    length += 2;
  };
  common::stword(static_cast<std::uint32_t>(image.open), head);
  common::stlong(image.number, head + 2);
  if (type != LogType::kInsert) put_length(image.old_image);
  if (type != LogType::kDelete) put_length(image.new_image);
  put_bytes({head, length});
  put_bytes(image.old_image);
  put_bytes(image.new_image);
}

bool LogRecordBuilder::finish() {
  const std::size_t length = buffer_.size() - start_ + log_record::kTrailer;
  if (length > log_record::kGreatest) return false;
  put_word(static_cast<int>(length));
  common::stword(static_cast<std::uint32_t>(length), &buffer_[start_ + log_record::kLength]);
  return true;
}

void stamp_record(Byte* at, std::int32_t process, int user, std::int32_t time, Link previous) {
  common::stlong(process, at + log_record::kProcess);
  common::stword(static_cast<std::uint32_t>(user), at + log_record::kUser);
  common::stlong(time, at + log_record::kTime);
  common::stlong(static_cast<std::int32_t>(previous.offset >> 32),
                 at + log_record::kPreviousOffset);
  common::stlong(static_cast<std::int32_t>(previous.offset), at + log_record::kPreviousOffset + 4);
  common::stword(static_cast<std::uint32_t>(previous.length), at + log_record::kPreviousLength);
}

namespace {

void set_letters(std::vector<Byte>& bytes, LogType type) {
  std::memcpy(&bytes[log_record::kType], letters_of(type), 2);
}

void exchange_images(std::vector<Byte>& update) {
  Byte* const lengths = &update[log_record::kPayload + kImageLengths];
  const auto old_length = common::ldword(lengths);
  const auto new_length = common::ldword(lengths + 2);
  common::stword(new_length, lengths);
  common::stword(old_length, lengths + 2);
  Byte* const images = lengths + 4;
  std::rotate(images, images + old_length, images + old_length + new_length);
}

void make_erasure(std::vector<Byte>& built) {
  const std::string name{LogRecord{built}.built()->name};
  const Link previous = LogRecord{built}.previous();
  built.clear();
  LogRecordBuilder erased{built, LogType::kErased};
  erased.put_name(name);
  static_cast<void>(erased.finish());
  stamp_record(built.data(), 0, 0, 0, previous);  // the rest is filled in when it is appended
}

}  // namespace

bool make_opposite(std::vector<Byte>& bytes) {
  switch (LogRecord{bytes}.type()) {
    case LogType::kDelete:
      set_letters(bytes, LogType::kInsert);
      return true;
    case LogType::kInsert:
      set_letters(bytes, LogType::kDelete);
      return true;
    case LogType::kUpdate:
      exchange_images(bytes);
      return true;
    case LogType::kIndexAdded:
      set_letters(bytes, LogType::kIndexDropped);
      return true;
    case LogType::kIndexDropped:
      set_letters(bytes, LogType::kIndexAdded);
      return true;
    case LogType::kBuilt:
      make_erasure(bytes);
      return true;
    default:
      return false;
  }
}

Link LogRecord::previous() const {
  const auto high = std::int64_t{common::ldlong(&bytes_[log_record::kPreviousOffset])};
  const auto low =
      static_cast<std::uint32_t>(common::ldlong(&bytes_[log_record::kPreviousOffset + 4]));
  return {high * (std::int64_t{1} << 32) + low,
          common::ldword(&bytes_[log_record::kPreviousLength])};
}

ConstBytes LogRecord::payload() const {
  const auto end = std::min(static_cast<std::size_t>(length()), bytes_.size());
  if (end < log_record::kSmallest) return {};
  return bytes_.subspan(log_record::kPayload, end - log_record::kSmallest);
}

std::optional<Image> LogRecord::image() const {
  if (bytes_.empty()) return std::nullopt;
  Reader reader{payload()};
  Image image;
  image.open = reader.word();
  image.number = reader.number();
  const int first = reader.word();  // length of the old image if there is one, else of the new one
  switch (type()) {
    case LogType::kDelete:
      image.old_image = reader.bytes(first);
      break;
    case LogType::kInsert:
      image.new_image = reader.bytes(first);
      break;
    case LogType::kUpdate: {
      const int second = reader.word();
      image.old_image = reader.bytes(first);
      image.new_image = reader.bytes(second);
      break;
    }
    default:
      return std::nullopt;
  }
  return reader.result(image);
}

std::optional<FileNamed> LogRecord::file_named() const {
  Reader reader{payload()};
  FileNamed file;
  file.open = reader.word();
  file.varlen = reader.word() != 0;
  file.name = reader.name();
  return reader.result(file);
}

std::optional<Built> LogRecord::built() const {
  Reader reader{payload()};
  Built built;
  built.mode = reader.word();
  built.minimum = static_cast<std::int16_t>(reader.word());
  built.reclen = reader.word();
  built.key = reader.key();
  built.name = reader.name();
  return reader.result(built);
}

std::optional<std::string_view> LogRecord::erased() const {
  Reader reader{payload()};
  const std::string_view name = reader.name();
  return reader.result(name);
}

std::optional<IndexChange> LogRecord::index_change() const {
  Reader reader{payload()};
  IndexChange change;
  change.open = reader.word();
  change.key = reader.key();
  return reader.result(change);
}

std::optional<Renamed> LogRecord::renamed() const {
  Reader reader{payload()};
  reader.word();  // the lengths of the names, which end with zero bytes anyway
  reader.word();
  Renamed names;
  names.from = reader.name();
  names.to = reader.name();
  return reader.result(names);
}

std::optional<UniqueId> LogRecord::unique_id() const {
  Reader reader{payload()};
  UniqueId unique;
  unique.open = reader.word();
  if (reader.left() >= sizeof(std::int32_t)) unique.id = reader.number();
  return reader.result(unique);
}

std::optional<int> LogRecord::open_number() const {
  switch (type()) {
    case LogType::kDelete:
    case LogType::kInsert:
    case LogType::kUpdate:
    case LogType::kOpened:
    case LogType::kClosed:
    case LogType::kIndexAdded:
    case LogType::kIndexDropped:
    case LogType::kUniqueSet:
    case LogType::kUniqueTaken:
    case LogType::kClustered: {
      Reader reader{payload()};
      return reader.result(reader.word());
    }
    default:
      return std::nullopt;
  }
}

}  // namespace isam::txlog
