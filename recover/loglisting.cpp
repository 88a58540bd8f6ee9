#include "recover/loglisting.h"

#include <array>
#include <cstdio>

#include "isam/base/errors.h"
#include "isam/log/logread.h"
#include "recover/describe.h"
#include "recover/plainfile.h"
#include "recover/tally.h"
#include "recover/text.h"

namespace recover {
namespace {

namespace log_record = isam::txlog::log_record;
using isam::txlog::kMagicSize;

std::string column(std::int64_t offset) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%10lld  ", static_cast<long long>(offset));
  return text.data();
}

class Listing {
 public:
  Listing(const PlainFile& file, bool dump) : file_(file), dump_(dump), scan_(file.fd.get()) {}

  Status run() {
    print("    offset  " + description_heading() + "\n");
    for (;;) {
      isam::clear_errors();
      const LogRecord logged = scan_.next();
      const std::int64_t offset = scan_.offset();
      if (!logged && iserrno != 0) {
        complain("the log cannot be read at offset " + std::to_string(offset));
        return Status::kFailed;
      }
      if (!logged) break;
      if (logged.length() < log_record::kSmallest) {
        damage(offset, "a record cannot be " + std::to_string(logged.length()) +
                           " bytes long; nothing behind it can be read");
        return finish();
      }
      show(logged, offset);
      if (type_of(logged) == LogType::kEnd) return finish();  // a recovery ends here as well
    }
    if (const std::int64_t offset = scan_.offset(); offset < file_.size) {
      damage(offset, "the log ends with a part of a record, " +
                         std::to_string(file_.size - offset) + " bytes; it counts as absent");
    }
    return finish();
  }

 private:
  void show(const LogRecord& logged, std::int64_t offset) {
    names_.learn(logged);
    print(column(offset) + describe(logged, names_) + "\n");
    if (dump_) print(dump_of(logged));
    check(logged, offset);
    names_.forget(logged);
    kinds_.add(type_of(logged));
    transactions_.add(logged, offset);
  }

  // Tells what is wrong with a record that is whole: it has as many bytes as its header says.
  void check(const LogRecord& logged, std::int64_t offset) {
    const auto size = static_cast<std::size_t>(logged.length());
    const int trailer = common::ldword(&logged.bytes()[size - log_record::kTrailer]);
    const isam::txlog::Link previous = logged.previous();
    if (trailer != logged.length()) {
      damage(offset, "the record is " + std::to_string(logged.length()) +
                         " bytes long at its start and " + std::to_string(trailer) + " at its end");
    }
    if (type_of(logged) == LogType::kUnknown) {
      damage(offset, "no record has this type; a recovery stops here");
    } else if (!payload_is_sound(logged)) {
      damage(offset, "what the record holds does not fit its type");
    }
    if (previous.length != 0 && (previous.offset < kMagicSize || previous.offset >= offset)) {
      damage(offset, "the previous record does not lie before this one");
    }
  }

  void damage(std::int64_t offset, const std::string& what) {
    print("damaged at offset " + std::to_string(offset) + ": " + what + "\n");
    ++damages_;
  }

  Status finish() {
    transactions_.finish();
    print("\nrecords " + kinds_.text() + "\n" + transactions_.text());
    if (damages_ == 0) return Status::kAll;
    print("damages " + std::to_string(damages_) + "\n");
    return Status::kSome;
  }

  const PlainFile& file_;
  bool dump_;
  isam::txlog::LogScan scan_;
  OpenNames names_;
  KindCounts kinds_;
  Transactions transactions_;
  std::int64_t damages_ = 0;
};

bool is_log(const PlainFile& file) {
  common::Byte magic[kMagicSize];
  if (common::read_at(file.fd.get(), magic, 0) < kMagicSize) return false;
  return static_cast<std::uint32_t>(common::ldlong(magic)) == isam::txlog::kLogMagic;
}

}  // namespace

Status list_log(const std::string& path, bool dump) {
  const PlainFile file = open_plain(path);
  if (!file.fd) return Status::kFailed;
  if (file.size == 0) {
    print("The log is empty: nobody has written to it.\n");
    return Status::kAll;
  }
  if (!is_log(file)) {
    complain(quoted(path) + " is not a transaction log");
    return Status::kFailed;
  }
  return Listing{file, dump}.run();
}

}  // namespace recover
