// recovery_fuzz: any bytes whatever as a log, replayed over two small sound pairs.
//
// Input   one byte: the mode of the recovery; the log without its magic number
// Finds   crashes, overruns, hangs, runaway memory, descriptors left open; and a recovery after
//         which the library cannot be used
//
// Records name files, so nothing outside a private folder can be reached: names lead there as long
// as they have no folder in them, and others are refused.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <vector>

#include "common/io.h"
#include "fuzz/log_input.h"
#include "fuzz/log_pairs.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

constexpr int kModes = 4;

// ---- The private folder.

bool is_private(const char* path) {
  const std::string_view name{path};
  return name.find('/') == name.npos && name != "..";
}
int refuse() {
  errno = EACCES;
  return -1;
}

int private_open(const char* path, int flags, mode_t permissions) {
  return is_private(path) ? ::open(path, flags, permissions) : refuse();
}
int private_stat(const char* path, struct stat* status) {
  return is_private(path) ? ::stat(path, status) : refuse();
}
int private_link(const char* from, const char* to) {
  return is_private(from) && is_private(to) ? ::link(from, to) : refuse();
}
int private_unlink(const char* path) { return is_private(path) ? ::unlink(path) : refuse(); }

class PrivatePairs {
 public:
  PrivatePairs() {
    fs::current_path(fs::path(workplace_.base()).parent_path());
    common::SystemCalls& calls = common::system_calls();
    calls.open = private_open;
    calls.stat = private_stat;
    calls.link = private_link;
    calls.unlink = private_unlink;
    fuzz::build_pairs();
    iscleanup();
    for (const auto& entry : fs::directory_iterator(".")) {
      std::ifstream file(entry.path(), std::ios::binary);
      files_[entry.path()] = Bytes(std::istreambuf_iterator<char>(file), {});
    }
  }

  // The folder holds the pairs as built, and nothing else.
  void restore() const {
    for (const auto& entry : fs::directory_iterator(".")) fs::remove_all(entry.path());
    for (const auto& [name, bytes] : files_) fuzz::write_file(name, {bytes});
  }

 private:
  fuzz::Workplace workplace_;
  std::map<std::string, Bytes> files_;
};

// The lowest: it shows a descriptor left open.
int free_descriptor() {
  const int fd = ::open("/dev/null", O_RDONLY);
  ::close(fd);
  return fd;
}

void use_pairs() {
  std::vector<char> record(fuzz::kMost);
  for (int pair = 0; pair < 2; ++pair) {
    const int isfd = fuzz::sure(fuzz::open_pair(pair, ISMANULOCK));
    int found = 0;
    while (isread(isfd, record.data(), found == 0 ? RD_FIRST : RD_NEXT) == 0) ++found;
    if (found != fuzz::kPresent - 1 || iserrno != ISEEND) std::abort();
    fuzz::sure(fuzz::add(isfd, 100, fuzz::kLeast));
    fuzz::sure(isclose(isfd));
  }
  iscleanup();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const PrivatePairs pairs;
  if (size == 0) return 0;
  pairs.restore();
  fuzz::write_log("log", {data, size});
  const int before = free_descriptor();
  fuzz::sure(islogopen("log"));
  isrecvr(data[0] % kModes);
  if (free_descriptor() != before) std::abort();
  pairs.restore();
  use_pairs();
  return 0;
}
