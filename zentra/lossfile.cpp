#include "zentra/lossfile.h"

#include <fcntl.h>

#include "checker/interrupt.h"
#include "common/io.h"

namespace zentra {
namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10;
constexpr mode_t kPrivate = 0600;

}  // namespace

LossFile::~LossFile() {
  if (!is_kept_) drop();
}

void LossFile::drop() {
  if (!file_) return;
  common::system_calls().unlink(path_.c_str());
  checker::forget_file(path_);
  file_ = {};
}

bool LossFile::add(const LostRecord& lost) {
  if (!file_) {
    const checker::SignalBlock block;
    constexpr int kHow = O_RDWR | O_CREAT | O_EXCL;
    file_ = common::FileHold{common::open_file(path_.c_str(), kHow, kPrivate)};
    if (!file_) return false;
    checker::remove_when_interrupted(path_);
  }
  text_ += line_of(lost);
  ++count_;
  return text_.size() < kPiece || put();
}

bool LossFile::put() {
  const common::ConstBytes bytes{reinterpret_cast<const common::Byte*>(text_.data()), text_.size()};
  if (common::write_at(file_.get(), bytes, written_) != 0) return false;
  written_ += static_cast<std::int64_t>(text_.size());
  text_.clear();
  return true;
}

bool LossFile::keep() {
  if (!file_) return true;
  if (!put() || common::system_calls().fsync(file_.get()) != 0) return false;
  is_kept_ = true;
  checker::forget_file(path_);
  return true;
}

}  // namespace zentra
