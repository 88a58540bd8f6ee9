#include "zentra/pair/readahead.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <vector>

#include "common/io.h"
#include "isam/base/current.h"
#include "isam/base/format.h"
#include "zentra/report/progress.h"

namespace zentra {
namespace {

constexpr std::int64_t kPiece = 1 << 20;
constexpr std::int64_t kShare = 4;  // one in so many bytes of memory, for each file

// Where the nodes end that the dictionary counts: no others are looked at. It is read without a
// lock, so this is a guess.
std::int64_t end_of_nodes() {
  isam::Dictionary dictionary{};
  const bool is_there =
      common::read_at(isam::filep->index.fd, dictionary.raw, 0) == isam::kDictionarySize &&
      dictionary.d_magic() == isam::kDictionaryMagic;
  if (!is_there) return 0;
  return std::int64_t{dictionary.d_nextnode()} * (dictionary.d_idxsize() + 1);
}

// The system tells which pages it has only to those who may write the file, and to all others that
// it has every page.
bool may_ask(int fd) {
  struct stat status {};
  if (common::system_calls().fstat(fd, &status) != 0) return false;
  const uid_t user = ::geteuid();
  return user == 0 || user == status.st_uid;
}

// Whether all pages of a piece are in the page cache.
bool is_there(int fd, std::int64_t offset, std::int64_t size) {
  void* const at =
      ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED, fd, offset);
  if (at == MAP_FAILED) return false;
  const std::int64_t page = ::sysconf(_SC_PAGESIZE);
  std::vector<unsigned char> pages(static_cast<std::size_t>((size + page - 1) / page));
  const bool told = ::mincore(at, static_cast<std::size_t>(size), pages.data()) == 0;
  ::munmap(at, static_cast<std::size_t>(size));
  return told && std::ranges::all_of(pages, [](unsigned char state) { return (state & 1) != 0; });
}

// Where the file has bytes from `offset` on, past a hole.
std::int64_t behind_hole(int fd, std::int64_t offset, std::int64_t size) {
  const off_t data = ::lseek(fd, offset, SEEK_DATA);
  if (data < 0) return errno == ENXIO ? size : offset;  // nothing but a hole is left; not told
  return std::max<std::int64_t>(offset, data);
}

std::int64_t memory() { return std::int64_t{::sysconf(_SC_PHYS_PAGES)} * ::sysconf(_SC_PAGESIZE); }

void read_up_to(int fd, std::int64_t end) {
  using std::chrono::steady_clock;
  const std::int64_t size = std::min({common::file_size(fd), end, memory() / kShare});
  const bool asks = may_ask(fd);
  std::vector<common::Byte> piece;  // none where all is there
  const auto start = steady_clock::now();
  for (std::int64_t at = 0; at < size; at += kPiece) {
    at = behind_hole(fd, at, size) / kPiece * kPiece;
    if (at >= size) return;
    if (asks && is_there(fd, at, std::min(kPiece, size - at))) continue;
    piece.resize(kPiece);
    if (common::read_at(fd, piece, at) <= 0) return;
    const std::chrono::duration<double> passed = steady_clock::now() - start;
    show_progress("Reading ahead", at, size, passed.count());
  }
}

}  // namespace

bool data_exceeds_cache() { return common::file_size(isam::filep->data.fd) > memory() / 2; }

void read_ahead() {
  read_up_to(isam::filep->index.fd, std::max<std::int64_t>(end_of_nodes(), 0) + kPiece);
  read_up_to(isam::filep->data.fd, INT64_MAX);
}

}  // namespace zentra
