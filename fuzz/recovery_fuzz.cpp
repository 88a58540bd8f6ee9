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

#include "common/io.h"
#include "fuzz/log_input.h"
#include "tests/support/logged_pairs.h"

namespace {

namespace fs = std::filesystem;
using testing_support::sure;

constexpr int kModes = 4;
constexpr int kPresent = 3;  // records of each pair

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
    for (const std::string name : {"pair", "varying"}) {
      testing_support::build_pair(name, name == "varying", kPresent);
      for (const char* part : {".idx", ".dat"}) {
        files_[name + part] = testing_support::read_file(name + part);
      }
    }
    iscleanup();
  }

  // The folder holds the pairs as built, and nothing else.
  void restore() const {
    for (const auto& entry : fs::directory_iterator(".")) fs::remove_all(entry.path());
    for (const auto& [name, bytes] : files_) testing_support::write_file(name, bytes);
  }

 private:
  fuzz::Workplace workplace_;
  std::map<std::string, fuzz::Image> files_;
};

// The lowest: it shows a descriptor left open.
int free_descriptor() {
  const int fd = ::open("/dev/null", O_RDONLY);
  ::close(fd);
  return fd;
}

void use_pairs() {
  std::string record(testing_support::kMaximum, 0);
  for (const std::string name : {"pair", "varying"}) {
    const int isfd = sure(testing_support::open_pair(name, name == "varying", ISMANULOCK));
    int found = 0;
    while (isread(isfd, record.data(), found == 0 ? RD_FIRST : RD_NEXT) == 0) ++found;
    if (found != kPresent || iserrno != ISEEND) std::abort();
    sure(testing_support::add(isfd, testing_support::row(100, 0)));
    sure(isclose(isfd));
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
  sure(islogopen("log"));
  isrecvr(data[0] % kModes);
  if (free_descriptor() != before) std::abort();
  pairs.restore();
  use_pairs();
  return 0;
}
