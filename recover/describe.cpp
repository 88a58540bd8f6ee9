#include "recover/describe.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "isam/base/errors.h"
#include "recover/text.h"
#include "recover/words.h"
#include "txlog/errorlog.h"

namespace recover {
namespace {

using common::ConstBytes;
using namespace isam::txlog;

// Names of opens are remembered up to this many at a time, so that a damaged log cannot take all
// memory: the processes of a machine have fewer files open.
constexpr std::size_t kMostNames = 65536;
// Characters of a name that are remembered; the library takes none that long.
constexpr std::size_t kLongestName = 255;

using Words = Word<LogType>;
constexpr std::array kWords = {
    Words{LogType::kBegin, "begin"},
    Words{LogType::kCommit, "commit"},
    Words{LogType::kRollback, "rollback"},
    Words{LogType::kDelete, "delete"},
    Words{LogType::kInsert, "insert"},
    Words{LogType::kUpdate, "rewrite"},
    Words{LogType::kOpened, "open file"},
    Words{LogType::kClosed, "close file"},
    Words{LogType::kBuilt, "build file"},
    Words{LogType::kErased, "erase file"},
    Words{LogType::kIndexAdded, "add index"},
    Words{LogType::kIndexDropped, "drop index"},
    Words{LogType::kRenamed, "rename file"},
    Words{LogType::kUniqueSet, "set unique id"},
    Words{LogType::kUniqueTaken, "unique id"},
    Words{LogType::kClustered, "cluster file"},
    Words{LogType::kMessage, "message"},
    Words{LogType::kCheckpoint, "checkpoint"},
    Words{LogType::kEnd, "end of log"},
    Words{LogType::kVS, "type VS"},
    Words{LogType::kSP, "type SP"},
};

std::string bytes_text(std::size_t count) { return std::to_string(count) + " bytes"; }

// What a message record of an error log says of the record before it.
struct Message {
  int error = 0;
  int system_error = 0;
  int place = 0;
  std::string_view status;
  std::string_view text;
};

std::optional<Message> message_of(const LogRecord& record) {
  using namespace message_record;
  const ConstBytes bytes = record.bytes();
  const std::size_t text_end = bytes.size() - log_record::kTrailer;
  // A message without a text has only three status characters, so ends one byte before kText.
  if (bytes.size() < log_record::kSmallest || text_end < kText - 1) return std::nullopt;
  const std::string_view all{reinterpret_cast<const char*>(bytes.data()), text_end};
  return Message{common::ldword(&bytes[kError]), common::ldword(&bytes[kSystemError]),
                 common::ldword(&bytes[kPlace]), all.substr(kStatus, kText - kStatus),
                 all.substr(std::min<std::size_t>(kText, text_end))};
}

// What a record's payload says, in words. `name` is that of the file that the record is about,
// empty when it is not known.
class Payload {
 public:
  Payload(const LogRecord& record, std::string_view name) : record_(record), name_(name) {}

  // Nothing when the payload is not what the type demands; empty for a type of which none is shown.
  [[nodiscard]] std::optional<std::string> text() const {
    switch (type_of(record_)) {
      case LogType::kDelete:
      case LogType::kInsert:
      case LogType::kUpdate:
        return image();
      case LogType::kOpened:
      case LogType::kClosed:
        return file();
      case LogType::kBuilt:
        return built();
      case LogType::kErased:
        return erased();
      case LogType::kIndexAdded:
      case LogType::kIndexDropped:
      case LogType::kClustered:
        return index();
      case LogType::kRenamed:
        return renamed();
      case LogType::kUniqueSet:
      case LogType::kUniqueTaken:
        return unique_id();
      case LogType::kMessage:
        return message();
      case LogType::kUnknown:
        return std::nullopt;
      default:
        return std::string{};
    }
  }

 private:
  using Text = std::optional<std::string>;

  [[nodiscard]] std::string open(int number) const {
    const std::string text = "open " + std::to_string(number);
    return name_.empty() ? text : text + " " + quoted(name_);
  }
  [[nodiscard]] Text image() const {
    const auto image = record_.image();
    if (!image) return std::nullopt;
    const std::string text = open(image->open) + ", record " + std::to_string(image->number) + ", ";
    switch (type_of(record_)) {
      case LogType::kDelete:
        return text + bytes_text(image->old_image.size());
      case LogType::kInsert:
        return text + bytes_text(image->new_image.size());
      default:
        return text + std::to_string(image->old_image.size()) + " to " +
               bytes_text(image->new_image.size());
    }
  }
  [[nodiscard]] Text file() const {
    const auto file = record_.file_named();
    if (!file) return std::nullopt;
    return "open " + std::to_string(file->open) + " " + quoted(file->name) +
           (file->varlen ? ", variable length" : ", fixed length");
  }
  [[nodiscard]] Text built() const {
    const auto built = record_.built();
    if (!built) return std::nullopt;
    std::array<char, 16> mode{};
    std::snprintf(mode.data(), mode.size(), "0x%X", static_cast<unsigned>(built->mode));
    const std::string shortest =
        (built->mode & ISVARLEN) != 0 ? std::to_string(built->minimum) + " to " : "";
    return quoted(built->name) + ", mode " + mode.data() + ", records of " + shortest +
           std::to_string(built->reclen) + " bytes, " + key_text(built->key);
  }
  [[nodiscard]] Text erased() const {
    const auto name = record_.erased();
    return name ? Text{quoted(*name)} : std::nullopt;
  }
  [[nodiscard]] Text index() const {
    const auto change = record_.index_change();
    if (!change) return std::nullopt;
    return open(change->open) + ", " + key_text(change->key);
  }
  [[nodiscard]] Text renamed() const {
    const auto names = record_.renamed();
    if (!names) return std::nullopt;
    return quoted(names->from) + " to " + quoted(names->to);
  }
  [[nodiscard]] Text unique_id() const {
    const auto unique = record_.unique_id();
    if (!unique) return std::nullopt;
    return open(unique->open) + (unique->id ? ", id " + std::to_string(*unique->id) : ", no id");
  }
  [[nodiscard]] Text message() const {
    const auto message = message_of(record_);
    if (!message) return std::nullopt;
    std::array<char, 16> place{};
    std::snprintf(place.data(), place.size(), "0x%02X", static_cast<unsigned>(message->place));
    return quoted(message->text) + ", iserrno " + code_text(message->error) + ", errno " +
           code_text(message->system_error) + ", iserrio " + place.data() + ", status " +
           quoted(message->status);
  }

  const LogRecord& record_;
  std::string_view name_;
};

bool is_mark(LogType type) {
  return type == LogType::kBegin || type == LogType::kCommit || type == LogType::kRollback;
}

// Which record of its process comes before this one in the chain that a rollback follows, as offset
// and length. Only marks and images belong into the chain: of others that have no link nothing is
// said.
std::string link_text(const LogRecord& record) {
  const Link previous = record.previous();
  if (previous.length != 0) {
    return "previous " + std::to_string(previous.offset) + "+" + std::to_string(previous.length);
  }
  if (is_mark(type_of(record))) return "no previous";
  return is_image(type_of(record)) ? "unlinked" : "";
}

// The file that the record itself names; empty when it names none.
std::string_view name_in(const LogRecord& record) {
  switch (type_of(record)) {
    case LogType::kOpened:
    case LogType::kClosed: {
      const auto file = record.file_named();
      return file ? file->name : std::string_view{};
    }
    case LogType::kBuilt: {
      const auto built = record.built();
      return built ? built->name : std::string_view{};
    }
    case LogType::kErased:
      return record.erased().value_or(std::string_view{});
    case LogType::kRenamed: {
      const auto names = record.renamed();
      return names ? names->from : std::string_view{};
    }
    default:
      return {};
  }
}

}  // namespace

const char* words_of(LogType type) {
  const char* const words = word_for(kWords, type);
  return words == nullptr ? "unknown type" : words;
}

LogType type_of(const LogRecord& record) {
  const isam::KeepError keep;  // here and below: an unknown type sets iserrno
  return record.type();
}

void OpenNames::learn(const LogRecord& record) {
  if (type_of(record) != LogType::kOpened) return;
  const auto file = record.file_named();
  if (!file) return;
  const Open open{record.process(), file->open};
  if (names_.size() < kMostNames || names_.contains(open))
    names_[open] = file->name.substr(0, kLongestName);
}

void OpenNames::forget(const LogRecord& record) {
  if (type_of(record) != LogType::kClosed) return;
  if (const auto file = record.file_named()) names_.erase({record.process(), file->open});
}

std::string_view OpenNames::name_for(const LogRecord& record) const {
  const isam::KeepError keep;
  if (const auto open = record.open_number()) {
    const auto found = names_.find({record.process(), *open});
    if (found != names_.end()) return found->second;
  }
  // The open was not learnt, or the record is of none: some name the file themselves.
  return name_in(record).substr(0, kLongestName);
}

std::string describe(const LogRecord& record, const OpenNames& names) {
  const isam::KeepError keep;
  const LogType type = type_of(record);
  std::array<char, 96> columns{};
  std::snprintf(columns.data(), columns.size(), "%-14s %10d %5d  %s", words_of(type),
                static_cast<int>(record.process()), record.user(),
                time_text(static_cast<std::uint32_t>(record.time())).c_str());
  std::string line = columns.data();
  const std::string details =
      type == LogType::kUnknown
          ? quoted(record.letters())
          : Payload{record, names.name_for(record)}.text().value_or("payload of another form");
  const std::string link = link_text(record);
  if (!details.empty()) line += "  " + details;
  if (!link.empty()) line += (details.empty() ? "  " : "; ") + link;
  return line;
}

std::string description_heading() {
  return "what              process  user  time                  details";
}

std::string dump_of(const LogRecord& record) {
  const isam::KeepError keep;
  if (is_image(type_of(record))) {
    if (const auto image = record.image()) {
      std::string text;
      if (!image->old_image.empty()) text += "    old\n" + dump_text(image->old_image);
      if (!image->new_image.empty()) text += "    new\n" + dump_text(image->new_image);
      return text;
    }
  }
  // What describe() has put into words needs no dump.
  const std::size_t size = record.bytes().size();
  if (payload_is_sound(record) || size <= log_record::kSmallest) return {};
  return dump_text(record.bytes().subspan(log_record::kPayload, size - log_record::kSmallest));
}

bool payload_is_sound(const LogRecord& record) {
  const isam::KeepError keep;
  return Payload{record, {}}.text().has_value();
}

}  // namespace recover
