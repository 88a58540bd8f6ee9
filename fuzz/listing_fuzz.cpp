// listing_fuzz: any bytes whatever as a log, an error log or an audit trail, listed.
//
// Input   one byte: what is listed, and how; then the log without its magic number, or two bytes,
//         the length of the trail's records, and the trail
// Finds   crashes, overruns, hangs and runaway memory; a listing with unprintable characters, or
//         far longer than what it lists; damages that the status does not tell of
#include <unistd.h>

#include "fuzz/log_input.h"
#include "isam/base/format.h"
#include "recover/loglisting.h"
#include "recover/trail.h"

namespace {

using recover::Status;
using namespace fuzz::listing;

constexpr std::size_t kHeader = 3;  // before a trail

// What a byte may take in a listing. A record of 34 bytes takes most, when it is about the open of
// a file with the longest name that is remembered.
constexpr std::size_t kMostToOne = 64;
constexpr std::size_t kMostAnyway = 4096;

// Standard output, kept in a file.
class Output {
 public:
  explicit Output(std::string path) : path_(std::move(path)) {
    if (std::freopen(path_.c_str(), "w", stdout) == nullptr) std::abort();
  }
  // What was written since the last time.
  [[nodiscard]] std::string take() const {
    std::fflush(stdout);
    const fuzz::Image bytes = testing_support::read_file(path_);
    std::rewind(stdout);
    if (::ftruncate(::fileno(stdout), 0) != 0) std::abort();
    return {bytes.begin(), bytes.end()};
  }

 private:
  std::string path_;
};

Status list(const std::string& path, fuzz::Input input) {
  const std::uint8_t how = input.front();
  const bool dump = (how & kDump) != 0;
  if ((how & kTrail) == 0) {
    fuzz::write_log(path, input);
    return recover::list_log(path, dump);
  }
  recover::Options options;
  options.trail = path;
  options.dump = dump;
  options.format = {(how & kVariable) != 0, 1 + common::ldword(&input[1]) % isam::kMaxRecordLength};
  testing_support::write_file(path, fuzz::image_of(input.subspan(kHeader)));
  return recover::list_trail(options);
}

void expect(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Workplace workplace;
  static const Output output(workplace.base() + ".out");
  if (size < kHeader) return 0;
  const Status status = list(workplace.base() + ".log", {data, size});
  const std::string text = output.take();
  expect(text.size() <= kMostToOne * size + kMostAnyway);
  expect(std::ranges::all_of(text, [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); }));
  expect(status == (text.find("\ndamages ") == text.npos ? Status::kAll : Status::kSome));
  return 0;
}
