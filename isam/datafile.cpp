#include "isam/datafile.h"

#include <algorithm>
#include <cstring>

#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/varlen.h"

namespace isam {
namespace {

constexpr std::int64_t kBlocksAddressable = std::int64_t{INT32_MAX} + 1;

// A place in the data file that moves forward, holding the block it stands in.
class Transfer {
 public:
  explicit Transfer(std::int64_t offset) : offset_(offset) {}

  // Copies bytes out and moves on: 0, or -1.
  int read(Bytes to) {
    while (!to.empty()) {
      if (hold() != 0) return -1;
      const auto within = static_cast<std::size_t>(offset_ % kPageSize);
      const std::size_t chunk = std::min(to.size(), kPageSize - within);
      std::memcpy(to.data(), page_.data() + within, chunk);
      offset_ += static_cast<std::int64_t>(chunk);
      to = to.subspan(chunk);
    }
    return 0;
  }

 private:
  int hold() {
    const std::int64_t block = offset_ / kPageSize;
    if (block == held_) return 0;
    page_.release();
    held_ = -1;
    if (block >= kBlocksAddressable) return failed(kCorrupted);
    page_ = bfread_data(static_cast<std::int32_t>(block));
    if (!page_) return -1;
    held_ = block;
    return 0;
  }

  std::int64_t offset_;
  std::int64_t held_ = -1;
  PageHold page_;
};

std::int64_t slot_offset(std::int32_t k) { return std::int64_t{k - 1} * slot_size(); }

int trailer_size() { return filep->varlen ? kVariableTrailer : kFixedTrailer; }

int read_variable_part(const Byte* trailer, Bytes to) {
  const int length = common::ldshort(trailer + kTrailerLength);
  const std::int32_t reference = common::ldlong(trailer + kTrailerReference);
  if (length < 0 || length > filep->maxreclen - filep->reclen || (length != 0 && reference == 0)) {
    return failed(kCorrupted);
  }
  if (length == 0) return 0;
  const int got = rprread(reference, to.first(static_cast<std::size_t>(length)));
  return got == length ? length : failed_unless_set(kCorrupted);
}

}  // namespace

int dataread(std::int32_t k, Bytes to) {
  Byte trailer[kVariableTrailer] = {};
  {
    Transfer from{slot_offset(k)};
    if (from.read(to.first(static_cast<std::size_t>(filep->reclen))) != 0) return -1;
    if (from.read({trailer, kFixedTrailer}) != 0) return -1;
    if (trailer[0] != kRecordPresent) return -1;
    if (!filep->varlen) return filep->reclen;
    if (from.read({trailer + 1, kVariableTrailer - 1}) != 0) return -1;
  }
  const int variable =
      read_variable_part(trailer, to.subspan(static_cast<std::size_t>(filep->reclen)));
  return variable < 0 ? -1 : filep->reclen + variable;
}

int datainfo(std::int32_t k, std::span<Byte, kVariableTrailer> trailer) {
  Transfer from{slot_offset(k) + filep->reclen};
  const int size = trailer_size();
  return from.read(trailer.first(static_cast<std::size_t>(size))) == 0 ? size : -1;
}

}  // namespace isam
