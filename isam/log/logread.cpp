#include "isam/log/logread.h"

#include <algorithm>
#include <new>

#include "common/io.h"
#include "isam/base/errors.h"

namespace isam::txlog {
namespace {

constexpr std::size_t kWindow = 65536;  // any record fits: its length is stored in 16 bits

}  // namespace

bool LogWindow::holds(std::int64_t offset, std::size_t length) const {
  if (offset < start_) return false;
  const auto skipped = static_cast<std::uint64_t>(offset - start_);
  return skipped <= filled_ && length <= filled_ - skipped;
}

ConstBytes LogWindow::at(std::int64_t offset, std::size_t length) const {
  return ConstBytes{buffer_}.subspan(static_cast<std::size_t>(offset - start_), length);
}

int LogWindow::readlog(std::int64_t offset, std::size_t length) {
  filled_ = 0;
  start_ = offset;
  try {
    if (buffer_.size() < length) buffer_.resize(length);
  } catch (const std::bad_alloc&) {
    return failed(kNoMemory);
  }
  const ssize_t got = common::read_at(fd_, Bytes{buffer_}.first(length), offset);
  if (got < 0) return failed(kLogRead);
  filled_ = static_cast<std::size_t>(got);
  return 0;
}

LogRecord LogWindow::isgetprev(std::int64_t offset, int length) {
  const auto size = static_cast<std::size_t>(length);
  if (offset < kMagicSize || length < log_record::kSmallest) return {};
  if (!holds(offset, size)) {
    const std::int64_t end = offset + length;
    const std::int64_t start =
        std::max<std::int64_t>(kMagicSize, end - static_cast<std::int64_t>(kWindow));
    if (readlog(start, static_cast<std::size_t>(end - start)) != 0 || !holds(offset, size)) {
      return {};
    }
  }
  return LogRecord{at(offset, size)};
}

LogRecord LogWindow::isgetnext(std::int64_t offset) {
  if (!holds(offset, log_record::kSmallest)) {
    if (readlog(offset, kWindow) != 0 || !holds(offset, log_record::kSmallest)) return {};
  }
  const auto length = static_cast<std::size_t>(common::ldword(at(offset, 2).data()));
  if (length < log_record::kSmallest) return LogRecord{at(offset, log_record::kSmallest)};
  if (!holds(offset, length)) {
    if (readlog(offset, kWindow) != 0 || !holds(offset, length)) return {};
  }
  return LogRecord{at(offset, length)};
}

LogRecord LogScan::next() {
  if (is_over_) return {};
  offset_ += length_;
  const LogRecord record = window_.isgetnext(offset_);
  length_ = record ? record.length() : 0;
  is_over_ = length_ < log_record::kSmallest;
  return record;
}

LogRecord LogChain::previous() {
  const LogRecord record = window_.isgetprev(at_.offset, at_.length);
  if (!record) {
    failed_unless_set(kLogRead);
    return {};
  }
  const Link earlier = record.previous();
  const bool is_own =
      record.length() == at_.length && record.process() == process_ && earlier.offset < at_.offset;
  if (!is_own) {
    failed(kBadLogRecord);
    return {};
  }
  at_ = earlier;
  return record;
}

}  // namespace isam::txlog
