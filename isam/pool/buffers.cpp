#include "isam/pool/buffers.h"

#include <utility>

#include "isam/base/errors.h"
#include "isam/pool/pool.h"

namespace isam {
namespace {

std::uint64_t last_generation = 0;

}  // namespace

Bytes PageHold::bytes() const {
  const int length = buffer_->block < 0 ? kPageSize : buffer_->file->geometry.idxsize + 1;
  return {buffer_->page, static_cast<std::size_t>(length)};
}

void PageHold::keep_before() const { the_pool->keep_before(buffer_); }

void PageHold::modified() const { the_pool->modified(buffer_); }

void PageHold::gives_up() const {
  modified();
  buffer_->flags |= kGivesUp;
}

bool PageHold::is_given_up() const { return (buffer_->flags & kGivesUp) != 0; }

int PageHold::write() {
  modified();
  return the_pool->bfwrite(std::exchange(buffer_, nullptr));
}

void bfexpect(std::int32_t node) {
  if (the_pool) the_pool->expect(node);
}

PageHold bfread_data(std::int32_t block) { return PageHold{pool().bfread(block | kDataBlock)}; }

bool bfcopy_data(std::int64_t offset, Bytes to, Bytes behind) {
  return pool().copy_data(offset, to, behind);
}

bool bfcopy_byte(std::int64_t offset, Byte& to) { return pool().copy_byte(offset, to); }

bool bfdirect(std::int64_t offset, ConstBytes first, ConstBytes second) {
  return pool().take_direct(offset, first, second);
}

BlocksKept::BlocksKept(std::int64_t offset, std::size_t size)
    : before_(pool().keep_blocks({offset, offset + static_cast<std::int64_t>(size)})) {}

BlocksKept::~BlocksKept() { the_pool->keep_blocks(before_); }

bool bfhold() { return pool().hold_direct(); }

int bfwrite_held() { return pool().write_held(); }

void bfwrite_direct() { pool().write_direct_or_pool(); }

void bfwrite_due() {
  if (the_pool) the_pool->write_due();
}

bool bfdata_is_written() {
  const Unwritten& unwritten = filep->unwritten;
  return unwritten.data_blocks == 0 && unwritten.direct.empty() && unwritten.held_count == 0 &&
         !(the_pool && the_pool->has_waiting(*filep));
}

PageHold bfgetclr(std::int32_t node) {
  if (node < 1) {
    failed(kCorrupted);
    return {};
  }
  return PageHold{pool().bfgetclr(node)};
}

int bfprocess(OpenPair& file, bool write) {
  return the_pool ? the_pool->bfprocess(file, write) : 0;
}

int bfflush(OpenPair& file) { return bfprocess(file, true); }

int bfcommit(OpenPair& file) { return pool().order().commit(file); }

int bfdiscard(OpenPair& file) { return pool().bfdiscard(file); }

void bfdrop(OpenPair& file, std::int32_t first) { pool().bfdrop(file, first); }

void bfease(bool at_once) {
  if (the_pool) the_pool->bfease(at_once);
}

int bfpend(OpenPair& file) { return bfprocess(file, false); }

void bfignor(OpenPair& file) {
  if (the_pool) the_pool->bfignor(file);
}

void bfclosing(const OpenPair& file) {
  if (the_pool) the_pool->closing(file);
}

std::uint64_t bfgeneration() { return ++last_generation; }

}  // namespace isam
