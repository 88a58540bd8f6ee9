#include "txlog/errorlog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "isam/base/errors.h"

namespace isam::txlog {
namespace {

constexpr mode_t kPermissions = 0666;

constexpr std::size_t kLongestText =
    log_record::kGreatest - message_record::kText - log_record::kTrailer;

std::int32_t now() { return static_cast<std::int32_t>(std::time(nullptr)); }

}  // namespace

int ErrorLog::opbadlog() {
  fd_ = common::FileHold{common::open_file(kErrorLogName, O_RDWR | O_CREAT | O_EXCL, kPermissions)};
  if (!fd_) return failed(kLogOpen);
  Byte magic[kMagicSize];
  common::stlong(static_cast<std::int32_t>(kLogMagic), magic);
  if (common::write_at(fd_.get(), magic, 0) != 0) return failed(kLogWrite);
  end_ = kMagicSize;
  return 0;
}

// The LM record has the codes in force, and why a record was left out.
void ErrorLog::bdmemlog(std::string_view message) {
  message = message.substr(0, kLongestText);
  const std::size_t start = buffer_.size();
  LogRecordBuilder builder{buffer_, LogType::kMessage};
  builder.put_long(0);
  builder.put_word(iserrno);
  builder.put_word(errno);
  builder.put_word(iserrio);
  const Byte status[4] = {static_cast<Byte>(isstat1), static_cast<Byte>(isstat2),
                          static_cast<Byte>(isstat3), static_cast<Byte>(isstat4)};
  // Such is the format: without a text the fourth character is left out, and the trailing length
  // stands in its place.
  builder.put_bytes(message.empty() ? ConstBytes{status, 3} : ConstBytes{status});
  builder.put_bytes({reinterpret_cast<const Byte*>(message.data()), message.size()});
  static_cast<void>(builder.finish());  // the text was cut to fit
  stamp_record(&buffer_[start], ::getpid(), static_cast<int>(::getuid() & 0xFFFF), now(), {});
}

void ErrorLog::dobadlog(const LogRecord& record, std::string_view message) {
  if (fd_) {
    const ConstBytes bytes = record.bytes();
    buffer_.assign(bytes.begin(), bytes.end());
    if (!buffer_.empty()) {
      // A damaged record may say other lengths than it has. Whoever reads the error log must find
      // the next record behind it, so both its ends get the length that is written.
      const auto length = static_cast<std::uint32_t>(buffer_.size());
      common::stword(length, &buffer_[log_record::kLength]);
      common::stword(length, &buffer_[buffer_.size() - log_record::kTrailer]);
      stamp_record(buffer_.data(), record.process(), record.user(), now(), {});
    }
    bdmemlog(message);
    // A note that cannot be written is lost, and the next one takes its place: recovery goes on.
    if (common::write_at(fd_.get(), buffer_, end_) == 0) {
      end_ += static_cast<std::int64_t>(buffer_.size());
    }
  }
  clear_errors();
  errno = 0;
  set_status("0000");
}

}  // namespace isam::txlog
