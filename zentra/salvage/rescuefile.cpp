#include "zentra/salvage/rescuefile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/io.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

constexpr std::int64_t kBlock = 4096;  // what one bad sector costs

bool is_same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

bool RescueFile::refuse(Status status, const std::string& why) {
  file_ = {};
  status_ = status;
  why_ = why;
  return false;
}

bool RescueFile::open(const std::string& path) {
  file_ = common::FileHold{common::open_file(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY)};
  if (!file_ || common::system_calls().fstat(file_.get(), &opened_) != 0 ||
      common::find_size(file_.get(), size_) != 0) {
    return refuse(Status::kUnfinished, fmt::format("{}: {}", shown(path), std::strerror(errno)));
  }
  if (S_ISREG(opened_.st_mode) || S_ISBLK(opened_.st_mode)) return true;
  return refuse(Status::kNeedsSalvage, fmt::format("{} is no file", shown(path)));
}

std::size_t RescueFile::read(isam::Bytes to, std::int64_t offset) {
  unread_.clear();
  const ssize_t got = common::read_at(fd(), to, offset);
  return got >= 0 ? static_cast<std::size_t>(got) : read_in_pieces(to, offset);
}

std::size_t RescueFile::read_in_pieces(isam::Bytes to, std::int64_t offset) {
  const auto left = static_cast<std::size_t>(std::max<std::int64_t>(0, size_ - offset));
  const std::size_t length = std::min(to.size(), left);
  for (std::size_t at = 0; at < length;) {
    const std::int64_t begin = offset + static_cast<std::int64_t>(at);
    const auto to_block_end = static_cast<std::size_t>(kBlock - begin % kBlock);
    const isam::Bytes piece = to.subspan(at, std::min(to_block_end, length - at));
    if (common::read_at(fd(), piece, begin) != static_cast<ssize_t>(piece.size())) {
      std::ranges::fill(piece, isam::Byte{0});
      const std::int64_t end = begin + static_cast<std::int64_t>(piece.size());
      if (!unread_.empty() && unread_.back().end == begin) {
        unread_.back().end = end;
      } else {
        unread_.push_back({begin, end});
      }
    }
    at += piece.size();
  }
  return length;
}

std::int64_t RescueFile::next_data(std::int64_t offset) const {
  if (!S_ISREG(opened_.st_mode)) return offset;
  const off_t at = ::lseek(fd(), offset, SEEK_DATA);
  if (at >= offset) return at;
  return errno == ENXIO ? size_ : offset;
}

bool RescueFile::has_changed() const {
  struct stat now {};
  return common::system_calls().fstat(fd(), &now) != 0 || now.st_size != opened_.st_size ||
         !is_same_time(now.st_mtim, opened_.st_mtim);
}

}  // namespace zentra
