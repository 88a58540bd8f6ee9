#include "zentra/readahead.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <vector>

#include "common/io.h"
#include "zentra/progress.h"

namespace zentra {
namespace {

constexpr std::int64_t kPiece = 1 << 20;

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

}  // namespace

void read_ahead(int fd) {
  using std::chrono::steady_clock;
  const std::int64_t memory = std::int64_t{::sysconf(_SC_PHYS_PAGES)} * ::sysconf(_SC_PAGESIZE);
  const std::int64_t size = std::min(common::file_size(fd), memory / 2);
  const bool asks = may_ask(fd);
  std::vector<common::Byte> piece(kPiece);
  const auto start = steady_clock::now();
  for (std::int64_t at = 0; at < size; at += kPiece) {
    if (asks && is_there(fd, at, std::min(kPiece, size - at))) continue;
    if (common::read_at(fd, piece, at) <= 0) return;
    const std::chrono::duration<double> passed = steady_clock::now() - start;
    show_progress("Reading ahead", at, size, passed.count());
  }
}

}  // namespace zentra
