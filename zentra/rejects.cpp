#include "zentra/rejects.h"

#include <fcntl.h>

#include "checker/interrupt.h"
#include "checker/jsonline.h"
#include "common/io.h"

namespace zentra {
namespace {

constexpr std::size_t kPiece = std::size_t{64} << 10;
constexpr std::size_t kMostBytes = std::size_t{256} << 10;  // of a line that are kept
constexpr mode_t kPrivate = 0600;                           // there are records in it

}  // namespace

Rejects::~Rejects() {
  if (!file_ || is_kept_) return;
  common::system_calls().unlink(path_.c_str());
  checker::forget_file(path_);
}

bool Rejects::add(std::int64_t line, const std::string& reason, std::string_view text) {
  if (!file_) {
    const checker::SignalBlock block;
    constexpr int kHow = O_RDWR | O_CREAT | O_EXCL;
    file_ = common::FileHold{common::open_file(path_.c_str(), kHow, kPrivate)};
    if (!file_) return false;
    checker::remove_when_interrupted(path_);
  }
  checker::JsonLine json;
  json.add("schema", std::int64_t{checker::kSchema}).add("type", std::string("rejected"));
  json.add("line", line).add("reason", reason);
  if (text.size() > kMostBytes) json.add("length", static_cast<std::int64_t>(text.size()));
  json.add("bytes", checker::FileBytes{.bytes = std::string(text.substr(0, kMostBytes))});
  text_ += json.text();
  ++count_;
  return text_.size() < kPiece || put();
}

bool Rejects::put() {
  const common::ConstBytes bytes{reinterpret_cast<const common::Byte*>(text_.data()), text_.size()};
  if (common::write_at(file_.get(), bytes, written_) != 0) return false;
  written_ += static_cast<std::int64_t>(text_.size());
  text_.clear();
  return true;
}

bool Rejects::sync() { return !file_ || (put() && common::system_calls().fsync(file_.get()) == 0); }

void Rejects::keep() {
  if (!file_) return;
  is_kept_ = true;
  checker::forget_file(path_);
}

}  // namespace zentra
