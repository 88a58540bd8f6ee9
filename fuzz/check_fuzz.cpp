// check_fuzz: any bytes whatever as a pair, checked and repaired.
//
// Input   4 bytes: length of the index file, big-endian; the index file; the data file; one byte
//         that chooses the options
// Finds   crashes, overruns, hangs and runaway memory; and a check with -n that changes a file
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>

#include "checker/dialogue.h"
#include "checker/driver.h"
#include "common/bytes.h"
#include "locale/collation.h"

namespace {

using Input = std::span<const std::uint8_t>;

// A folder in memory where there is one, for the life of the process.
class Workplace {
 public:
  Workplace() {
    std::string pattern = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    pattern += "/check_fuzz.XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    base_ = pattern + "/pair";
    locale::initulx();
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    if (std::freopen("/dev/null", "r", stdin) == nullptr) std::abort();
  }
  ~Workplace() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(base_).parent_path(), ignored);
  }

  [[nodiscard]] const std::string& base() const { return base_; }
  void put(const char* suffix, Input bytes) const {
    std::ofstream file(base_ + suffix, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
  [[nodiscard]] bool holds(const char* suffix, Input bytes) const {
    std::ifstream file(base_ + suffix, std::ios::binary);
    return std::equal(std::istreambuf_iterator<char>(file), {}, bytes.begin(), bytes.end(),
                      [](char a, std::uint8_t b) { return static_cast<std::uint8_t>(a) == b; });
  }

 private:
  std::string base_;
};

checker::Options options_from(std::uint8_t choice) {
  checker::Options chosen;
  chosen.qflag = 1;
  (choice & 1 ? chosen.yflag : chosen.nflag) = 1;
  chosen.iflag = choice >> 1 & 1;
  chosen.lflag = choice >> 2 & 1;
  return chosen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Workplace workplace;
  constexpr std::size_t kFraming = 5;
  if (size < kFraming) return 0;
  const Input body{data + 4, size - kFraming};
  const auto claimed = static_cast<std::uint32_t>(common::ldlong(data));
  const Input index = body.first(std::min<std::size_t>(claimed, body.size()));
  const Input records = body.subspan(index.size());

  workplace.put(".idx", index);
  workplace.put(".dat", records);
  checker::options = options_from(data[size - 1]);
  checker::ckfile(workplace.base());
  if (checker::options.nflag != 0 &&
      (!workplace.holds(".idx", index) || !workplace.holds(".dat", records))) {
    std::abort();
  }
  return 0;
}
