#include "isam/records/datafile.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "common/fatal.h"
#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/buffers.h"
#include "isam/pool/extent.h"
#include "isam/records/askahead.h"
#include "isam/records/varlen.h"

namespace isam {
namespace {

constexpr std::int64_t kBlocksAddressable = std::int64_t{INT32_MAX} + 1;

// A place in the data file that moves forward, holding the block it stands in. `ahead` tells how
// many bytes will be written: all their blocks are read before the first is changed, so that a
// block that cannot be read is met before a slot is half written. Two of them at a time are held,
// for the pool may be small; the pool may have to read those further on again.
class Transfer {
 public:
  explicit Transfer(std::int64_t offset, int ahead = 0) : offset_(offset), end_(offset + ahead) {}

  // Copies bytes out and moves on: 0, or -1.
  int read(Bytes to) {
    while (!to.empty()) {
      if (hold() != 0) return -1;
      const std::size_t chunk = pass(to.size());
      std::memcpy(to.data(), here_, chunk);
      to = to.subspan(chunk);
    }
    return 0;
  }

  // Copies bytes in and moves on: 0, or -1.
  int write(ConstBytes from) {
    while (!from.empty()) {
      if (hold() != 0) return -1;
      const std::size_t chunk = pass(from.size());
      if (std::memcmp(here_, from.data(), chunk) != 0) {
        std::memcpy(here_, from.data(), chunk);
        page_.modified();
      }
      from = from.subspan(chunk);
    }
    return 0;
  }

 private:
  // Moves over up to `wanted` bytes of the block: how many, from here_ on.
  std::size_t pass(std::size_t wanted) {
    const auto within = static_cast<std::size_t>(offset_ % kPageSize);
    const std::size_t chunk = std::min(wanted, kPageSize - within);
    here_ = page_.data() + within;
    offset_ += static_cast<std::int64_t>(chunk);
    return chunk;
  }

  // Holds the block at offset_, and the next one where more is to be written there: 0, or -1.
  int hold() {
    if (offset_ < 0) return failed(kCorrupted);  // of a record number below 1
    const std::int64_t block = offset_ / kPageSize;
    return block == held_ ? 0 : move_to(block);
  }

  int move_to(std::int64_t block) {
    page_.release();
    held_ = -1;
    if (look_ahead(block + 2) != 0) return -1;
    page_ = next_ ? std::move(next_) : read_block(block);
    if (!page_) return -1;
    if (end_ > (block + 1) * kPageSize) {
      next_ = read_block(block + 1);
      if (!next_) return -1;
    }
    held_ = block;
    return 0;
  }

  // Reads the blocks to be written from this one on, unless that was done: 0, or -1.
  int look_ahead(std::int64_t block) {
    for (; !has_looked_ && block * kPageSize < end_; ++block) {
      if (!read_block(block)) return -1;
    }
    has_looked_ = true;
    return 0;
  }

  static PageHold read_block(std::int64_t block) {
    if (block < kBlocksAddressable) return bfread_data(static_cast<std::int32_t>(block));
    failed(kCorrupted);
    return {};
  }

  std::int64_t offset_;
  std::int64_t end_;
  std::int64_t held_ = -1;
  bool has_looked_ = false;
  PageHold page_;
  PageHold next_;
  Byte* here_ = nullptr;
};

// For fewer records in one go no mapping is made or renewed.
constexpr std::size_t kFewRecords = 16;

std::int64_t slot_offset(std::int32_t k) { return std::int64_t{k - 1} * slot_size(); }

int trailer_size() { return filep->geometry.varlen ? kVariableTrailer : kFixedTrailer; }

// What stands behind a record in its slot; of a fixed-length file only the state.
struct Trailer {
  Byte bytes[kVariableTrailer] = {};

  [[nodiscard]] bool is_present() const { return bytes[0] == kRecordPresent; }
  [[nodiscard]] int length() const { return common::ldshort(bytes + kTrailerLength); }
  [[nodiscard]] std::int32_t reference() const { return common::ldlong(bytes + kTrailerReference); }
  void set(Byte state, int length, std::int32_t reference) {
    bytes[0] = state;
    common::stword(static_cast<std::uint32_t>(length), bytes + kTrailerLength);
    common::stlong(reference, bytes + kTrailerReference);
  }
  [[nodiscard]] Bytes stored() { return {bytes, static_cast<std::size_t>(trailer_size())}; }
};

// 0, or -1 with 105 for a trailer that cannot be.
int check(const Trailer& trailer) {
  const int length = trailer.length();
  const bool sound = length >= 0 && length <= filep->geometry.maxreclen - filep->geometry.reclen &&
                     (length == 0 || trailer.reference() != 0);
  return sound ? 0 : failed(kCorrupted);
}

// Of a fixed-length record nothing is read: whoever writes its trailer sets the state.
int read_trailer(std::int32_t k, Trailer& trailer) {
  if (!filep->geometry.varlen) return 0;
  Transfer from{slot_offset(k) + filep->geometry.reclen};
  return from.read(trailer.stored()) != 0 ? -1 : check(trailer);
}

int write_trailer(std::int32_t k, Trailer& trailer) {
  Transfer to{slot_offset(k) + filep->geometry.reclen};
  return to.write(trailer.stored());
}

int write_slot(std::int32_t k, ConstBytes fixed, Trailer& trailer) {
  const std::int64_t offset = slot_offset(k);
  if (!filep->geometry.varlen && bfdirect(offset, fixed, trailer.stored())) return 0;
  // Two blocks are held at a time.
  const bool are_held_at_once = slot_size() <= static_cast<int>(kPageSize) + 1;
  const BlocksKept kept{offset, are_held_at_once ? 0 : static_cast<std::size_t>(slot_size())};
  Transfer to{offset, slot_size()};
  return to.write(fixed) != 0 ? -1 : to.write(trailer.stored());
}

int read_variable_part(const Trailer& trailer, Bytes to) {
  const int length = trailer.length();
  if (check(trailer) != 0) return -1;
  if (length == 0) return 0;
  const int got = rprread(trailer.reference(), to.first(static_cast<std::size_t>(length)));
  return got == length ? length : failed_unless_set(kCorrupted);
}

// Free nodes that the head of their list names, and the head itself.
std::int64_t free_nodes_at_hand() {
  if (dictp->d_freenode() == 0) return 0;
  const KeepError keep;
  const PageHold head = bfread(dictp->d_freenode());
  return head ? (head.used() - kEntriesOffset) / kListEntrySize + 1 : 0;
}

// Takes room for a node for every piece that a variable part may need, before its storage is
// touched: storage changed in part could not be put back. 0 or -1. The list of free nodes, which
// has to be read, is asked last.
int reserve_storage(std::size_t length) {
  const auto chunk = static_cast<std::size_t>(RpageGeometry{filep->geometry.idxsize}.chunk);
  const auto pieces = static_cast<std::int64_t>((length + chunk - 1) / chunk);
  const std::int64_t last = dictp->d_nextnode();
  const bool is_there = (last + pieces) * node_size() <= filep->index.extent.bytes;
  if (pieces == 0 || is_there || !reserves_room() || free_nodes_at_hand() >= pieces) return 0;
  return reserve_nodes(last + 1, last + pieces);
}

// The variable part goes first; then the slot, whose trailer refers to it.
int put_record(std::int32_t k, ConstBytes record, Trailer& trailer, bool release) {
  const auto fixed = static_cast<std::size_t>(filep->geometry.reclen);
  if (record.size() < fixed ||
      record.size() > static_cast<std::size_t>(filep->geometry.maxreclen)) {
    common::error("dataxfer: arg tlen out of range");
  }
  if (reserve_slot(k) != 0) return -1;
  if (filep->geometry.varlen) {
    const ConstBytes variable = record.subspan(fixed);
    if (reserve_storage(variable.size()) != 0) return -1;
    const std::int32_t reference = rprupdate(trailer.reference(), variable, release);
    if (reference == -1) return failed_unless_set(kCorrupted);
    trailer.set(kRecordPresent, static_cast<int>(variable.size()), reference);
  } else {
    trailer.bytes[0] = kRecordPresent;
  }
  return write_slot(k, record.first(fixed), trailer);
}

// Whether these records of fixed length can be copied out of a mapping of the file, which is made
// or renewed where that pays.
bool map_serves(std::span<const std::int32_t> numbers) {
  OpenPair& file = *filep;
  if (file.geometry.varlen || !bfdata_is_written()) return false;
  const auto [first, last] = std::ranges::minmax(numbers);
  if (first < 1 || last > dictp->d_nextdata()) return false;
  const auto size = static_cast<std::size_t>(slot_size());
  if (file.data.map.covers(size, slot_offset(last))) return true;
  if (numbers.size() < kFewRecords) return false;
  file.data.map.look_again(file.data.fd);
  return file.data.map.covers(size, slot_offset(last));
}

// Copies records of fixed length out of the bytes of the data file: how many, up to the first that
// is not present.
std::size_t copy_slots(ConstBytes from, std::span<const std::int32_t> numbers, Byte* to) {
  constexpr std::size_t kAhead = 6;          // records
  constexpr std::size_t kMostAhead = 512;    // bytes of each
  constexpr std::size_t kAheadInRow = 3072;  // bytes
  const auto length = static_cast<std::size_t>(filep->geometry.reclen);
  const std::size_t size = length + kFixedTrailer;
  const auto place = [&](std::int32_t number) {
    return (static_cast<std::size_t>(number) - 1) * size;
  };
  // The processor fetches neighbours without being asked for, but no further than to the end of
  // each page of the system.
  const bool are_neighbours = std::int64_t{numbers.back()} - numbers.front() ==
                              static_cast<std::int64_t>(numbers.size()) - 1;
  const auto needed_soon = [&](std::size_t i) -> ConstBytes {
    if (!are_neighbours) {
      if (i + kAhead >= numbers.size()) return {};
      return from.subspan(place(numbers[i + kAhead]), std::min(size, kMostAhead));
    }
    const std::size_t there = place(numbers[i]) + kAheadInRow;
    if (size > kAheadInRow || there + size > from.size()) return {};
    return from.subspan(there, size);
  };
  for (std::size_t i = 0; i < numbers.size(); ++i, to += length) {
    const ConstBytes soon = needed_soon(i);
    common::prefetch(soon.data(), soon.size());
    const Byte* const slot = &from[place(numbers[i])];
    if (slot[length] != kRecordPresent) return i;
    std::memcpy(to, slot, length);
  }
  return numbers.size();
}

// Copies many records out of the mapping: how many, none when pages of it were missing.
std::size_t copy_from_map(std::span<const std::int32_t> numbers, Byte* to) {
  PairFile& data = filep->data;
  std::size_t count = 0;
  const auto copy = [&](ConstBytes from) { count = copy_slots(from, numbers, to); };
  return copy_batch(numbers, slot_size(), data.copies, data.map, data.fd, copy) ? count : 0;
}

// Frees or clears the storage first, then clears the slot: 0 or -1. The absent slot goes on
// referring to storage that is kept.
int remove_record(std::int32_t k, bool keep_storage) {
  Trailer trailer;
  if (read_trailer(k, trailer) != 0) return -1;
  std::int32_t reference = trailer.reference();
  if (reference != 0) {
    if ((keep_storage ? rprclear(reference) : rprfree(reference)) != 0) return -1;
    if (!keep_storage) reference = 0;
  }
  trailer.set(kRecordAbsent, 0, reference);
  static constexpr Byte kZeros[INT16_MAX] = {};
  return write_slot(k, {kZeros, static_cast<std::size_t>(filep->geometry.reclen)}, trailer);
}

}  // namespace

int dataread(std::int32_t k, Bytes to) {
  Trailer trailer;
  const Bytes fixed = to.first(static_cast<std::size_t>(filep->geometry.reclen));
  if (!bfcopy_data(slot_offset(k), fixed, trailer.stored())) {
    Transfer from{slot_offset(k)};
    if (from.read(fixed) != 0 || from.read(trailer.stored()) != 0) return -1;
  }
  if (!trailer.is_present()) return -1;
  if (!filep->geometry.varlen) return filep->geometry.reclen;
  const int variable =
      read_variable_part(trailer, to.subspan(static_cast<std::size_t>(filep->geometry.reclen)));
  return variable < 0 ? -1 : filep->geometry.reclen + variable;
}

void dataexpect(std::int32_t k) {
  if (k > 0) filep->data.map.expect(static_cast<std::size_t>(slot_size()), slot_offset(k));
}

std::size_t dataread_many(std::span<const std::int32_t> numbers, Byte* to, std::int32_t* lengths) {
  const Geometry& geometry = filep->geometry;
  std::size_t count = 0;
  if (!numbers.empty() && map_serves(numbers)) {
    count = copy_from_map(numbers, to);
    std::fill_n(lengths, count, geometry.reclen);
    return count;
  }
  const KeepError keep;
  const auto room = static_cast<std::size_t>(geometry.maxreclen);
  for (; count < numbers.size(); ++count, to += room) {
    lengths[count] = dataread(numbers[count], {to, room});
    if (lengths[count] < 0) break;
  }
  return count;
}

int datainfo(std::int32_t k, std::span<Byte, kVariableTrailer> trailer) {
  Transfer from{slot_offset(k) + filep->geometry.reclen};
  const int size = trailer_size();
  return from.read(trailer.first(static_cast<std::size_t>(size))) == 0 ? size : -1;
}

std::int32_t records_in_file() {
  {
    const KeepError keep;  // a failure is told by the next call
    bfflush(*filep);
  }
  return std::min(dictp->d_nextdata(), slots_in_file());
}

std::int32_t slots_in_file() {
  const std::int64_t slots = common::file_size(filep->data.fd) / slot_size() + 1;
  return static_cast<std::int32_t>(std::min<std::int64_t>(slots, INT32_MAX));
}

int datacheck(std::int32_t k) {
  Byte state = 0;
  const std::int64_t offset = slot_offset(k) + filep->geometry.reclen;
  if (!bfcopy_byte(offset, state) && !bfcopy_data(offset, {&state, 1}, {})) {
    Transfer from{offset};
    if (from.read({&state, 1}) != 0) return -1;
  }
  return state == kRecordPresent ? 1 : 0;
}

int datarefers(std::int32_t k) {
  Trailer trailer;
  if (read_trailer(k, trailer) != 0) return -1;
  return trailer.reference() != 0 ? 1 : 0;
}

int datacreate(std::int32_t k, ConstBytes record) {
  Trailer trailer;
  if (read_trailer(k, trailer) != 0) return -1;
  if (trailer.reference() != 0) return failed(kCorrupted);
  return put_record(k, record, trailer, true);
}

int datawrite(std::int32_t k, ConstBytes record, bool release) {
  Trailer trailer;
  if (read_trailer(k, trailer) != 0) return -1;
  return put_record(k, record, trailer, release);
}

int datatrunc(std::int32_t k) {
  Trailer trailer;
  if (read_trailer(k, trailer) != 0) return -1;
  if (trailer.reference() == 0) return 0;
  if (rprtrunc(trailer.reference(), trailer.length()) != 0) return -1;
  if (trailer.length() == 0) trailer.set(trailer.bytes[0], 0, 0);
  return write_trailer(k, trailer);
}

int dataclear(std::int32_t k) { return remove_record(k, true); }

int datadelete(std::int32_t k) { return remove_record(k, false); }

}  // namespace isam
