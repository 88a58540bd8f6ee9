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
#include "fuzz/fuzz_pair.h"
#include "fuzz/log_pairs.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

constexpr int kModes = 4;
constexpr std::size_t kHeader = 24;  // of a record in the log
constexpr std::size_t kSmallest = 26;
constexpr std::size_t kGreatest = 65535;
constexpr std::array<std::uint8_t, 4> kMagic = {0xFB, 0x85, 0x9E, 0x78};

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

void write(const std::string& name, fuzz::Input first, fuzz::Input second = {}) {
  std::ofstream file(name, std::ios::binary | std::ios::trunc);
  for (const fuzz::Input bytes : {first, second}) {
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
  }
}

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
    for (const auto& [name, bytes] : files_) write(name, bytes);
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

// ---- Mutation: records stay records most of the time.

struct Place {
  std::size_t at;
  std::size_t length;
};

std::vector<Place> records_in(const Bytes& log) {
  std::vector<Place> records;
  for (std::size_t at = 1; at + kSmallest <= log.size();) {
    const auto length = static_cast<std::size_t>(log[at] << 8 | log[at + 1]);
    if (length < kSmallest || length > log.size() - at) break;
    records.push_back({at, length});
    at += length;
  }
  return records;
}

// The bytes of a record from its type on, changed somehow.
Bytes changed_record(const Bytes& log, const Place& place) {
  const auto start = log.begin() + static_cast<std::ptrdiff_t>(place.at);
  Bytes inner(start + 2, start + static_cast<std::ptrdiff_t>(place.length) - 2);
  const std::size_t size = inner.size();
  inner.resize(std::min(kGreatest - 4, 2 * size + 64));
  inner.resize(std::max(kHeader - 2, LLVMFuzzerMutate(inner.data(), size, inner.size())));
  const std::size_t length = inner.size() + 4;
  const auto high = static_cast<std::uint8_t>(length >> 8);
  const auto low = static_cast<std::uint8_t>(length);
  inner.insert(inner.begin(), {high, low});
  inner.insert(inner.end(), {high, low});
  return inner;
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned int seed) {
  Bytes log(data, data + size);
  const std::vector<Place> records = records_in(log);
  if (records.empty() || seed % 8 == 0) return LLVMFuzzerMutate(data, size, most);
  const Place from = records[seed / 8 % records.size()];
  const Place to = records[seed / 64 % records.size()];
  const auto start = log.begin() + static_cast<std::ptrdiff_t>(from.at);
  const Bytes as_it_is(start, start + static_cast<std::ptrdiff_t>(from.length));
  const Bytes fresh = seed % 8 < 6 ? changed_record(log, from) : as_it_is;
  const Place& target = seed % 8 < 6 ? from : to;
  const auto at = log.begin() + static_cast<std::ptrdiff_t>(target.at);
  const bool replaces = seed % 8 != 7;
  const auto rest = replaces ? log.erase(at, at + static_cast<std::ptrdiff_t>(target.length)) : at;
  log.insert(rest, fresh.begin(), fresh.end());
  if (log.size() > most) return LLVMFuzzerMutate(data, size, most);
  std::ranges::copy(log, data);
  return log.size();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const PrivatePairs pairs;
  if (size == 0) return 0;
  pairs.restore();
  write("log", kMagic, fuzz::Input{data, size}.subspan(1));
  const int before = free_descriptor();
  fuzz::sure(islogopen("log"));
  isrecvr(data[0] % kModes);
  if (free_descriptor() != before) std::abort();
  pairs.restore();
  use_pairs();
  return 0;
}
