#include "zentra/files/linefile.h"

#include <fcntl.h>

#include "checker/interrupt.h"
#include "common/io.h"

namespace zentra {
namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10;
constexpr mode_t kPrivate = 0600;

}  // namespace

LineFile::~LineFile() {
  if (!file_ || is_kept_) return;
  common::system_calls().unlink(path_.c_str());
  checker::forget_file(path_);
}

bool LineFile::make() {
  const checker::SignalBlock block;
  file_ = common::FileHold{common::open_file(path_.c_str(), O_RDWR | O_CREAT | O_EXCL, kPrivate)};
  if (!file_) return false;
  checker::remove_when_interrupted(path_);
  return true;
}

bool LineFile::add(std::string_view line) {
  if (!file_ && !make()) return false;
  text_ += line;
  ++count_;
  return text_.size() < kPiece || put();
}

bool LineFile::put() {
  const common::ConstBytes bytes{reinterpret_cast<const common::Byte*>(text_.data()), text_.size()};
  if (common::write_at(file_.get(), bytes, written_) != 0) return false;
  written_ += static_cast<std::int64_t>(text_.size());
  text_.clear();
  return true;
}

bool LineFile::sync() {
  return !file_ || (put() && common::system_calls().fsync(file_.get()) == 0);
}

void LineFile::keep() {
  if (!file_) return;
  is_kept_ = true;
  checker::forget_file(path_);
}

}  // namespace zentra
