#include "zentra/repair/badrecords.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "checker/progress.h"
#include "common/io.h"
#include "common/sorter.h"
#include "isam/base/current.h"
#include "isam/base/errors.h"
#include "isam/files/watching.h"
#include "isam/keys/sortkey.h"
#include "isam/records/datafile.h"
#include "isam/records/varlen.h"
#include "zentra/check/collector.h"
#include "zentra/pair/trailer.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

constexpr std::size_t kMemory = std::size_t{16} << 20;

int length_of(isam::ConstBytes trailer) {
  return common::ldshort(trailer.data() + isam::kTrailerLength);
}
enum class Part : std::uint8_t { kWhole, kLost, kNotKnown };

// Of the library's current error: the errno if it is the system's, else 0.
int system_error() {
  if (!checker::is_of_system(iserrno)) return 0;
  return iserrno == isam::kNoMemory ? ENOMEM : iserrno;
}

// Whether every piece is where a program that reads, changes or deletes the record looks for it.
bool can_be_read(std::int32_t record, isam::ConstBytes trailer, isam::Bytes buffer) {
  isam::PieceChain chain{reference_of(trailer)};
  while (chain.pointer() != 0) {
    if (chain.is_too_long()) return false;
    const isam::PageHold page = chain.read();
    if (!page || !chain.rprwalk()) return false;
  }
  return isam::dataread(record, buffer) > 0;
}

// Not known, with errno, where the system did not let it be read: the part may be whole.
Part part_of(std::int32_t record, isam::ConstBytes trailer, isam::Bytes buffer) {
  const isam::KeepError keep;
  isam::clear_errors();
  if (can_be_read(record, trailer, buffer)) return Part::kWhole;
  if (system_error() == 0) return Part::kLost;
  errno = system_error();
  return Part::kNotKnown;
}

// The slots of the data file one after the other.
class Slots {
 public:
  explicit Slots(std::int32_t last)
      : last_(last), bytes_(kPiece / slot() * slot() + (kPiece < slot() ? slot() : 0)) {}

  // The slot of a record; empty, with errno, when it cannot be read, with 0 where the file ends in
  // it. Valid until the next call.
  [[nodiscard]] isam::ConstBytes of(std::int32_t record) {
    const auto at = static_cast<std::size_t>(record - first_) * slot();
    if (first_ != 0 && at + slot() <= got_) return isam::ConstBytes{bytes_}.subspan(at, slot());
    first_ = record;
    const auto left = static_cast<std::size_t>(last_ - record + 1) * slot();
    const isam::Bytes room = isam::Bytes{bytes_}.first(std::min(bytes_.size(), left));
    const std::int64_t offset = std::int64_t{record - 1} * isam::slot_size();
    const ssize_t got = common::read_at(filep->data.fd, room, offset);
    got_ = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    if (got_ >= slot()) return isam::ConstBytes{bytes_}.first(slot());
    if (got >= 0) errno = 0;
    return {};
  }

 private:
  static constexpr std::size_t kPiece = std::size_t{256} << 10;
  static std::size_t slot() { return static_cast<std::size_t>(isam::slot_size()); }

  std::int32_t last_;
  std::vector<isam::Byte> bytes_;
  std::int32_t first_ = 0;  // record whose slot begins bytes_
  std::size_t got_ = 0;
};

std::int32_t last_slot(const checker::Check& check) {
  return std::min(check.datlast, check.datreal);
}

// Calls `look` with each record and its slot, as far as the data file has it whole. The first errno
// that is not 0, of a read or of `look`, ends it.
template <typename Look>
int look_at_slots(const checker::Check& check, const char* title, Look look) {
  const std::int32_t last = last_slot(check);
  Slots slots{last};
  checker::Progress progress(title, last);
  for (std::int32_t record = 1; record <= last; ++record) {
    progress.at(record);
    const isam::ConstBytes slot = slots.of(record);
    const int failed = slot.empty() ? errno : look(record, slot);
    if (failed != 0) return failed;
  }
  return 0;
}

}  // namespace

const char* code_of(Why why) {
  constexpr std::array kCodes = {"record.state",         "record.unreadable",
                                 "storage.piece-shared", "storage.reference-left",
                                 "index.keys-equal",     "pieces.data-end"};
  return kCodes.at(static_cast<std::size_t>(why));
}

int trailer_size() { return filep->geometry.varlen ? isam::kVariableTrailer : isam::kFixedTrailer; }

int slot_bytes(std::int32_t record) {
  const std::int64_t begin = std::int64_t{record - 1} * isam::slot_size();
  const std::int64_t end = common::file_size(filep->data.fd);
  return static_cast<int>(std::clamp<std::int64_t>(end - begin, 0, isam::slot_size()));
}

bool read_slot(std::int32_t record, isam::Bytes fixed, isam::Bytes trailer) {
  const std::int64_t offset = std::int64_t{record - 1} * isam::slot_size();
  const auto whole = [](isam::Bytes to, std::int64_t at) {
    const ssize_t got = common::read_at(filep->data.fd, to, at);
    if (got == static_cast<ssize_t>(to.size())) return true;
    if (got >= 0) errno = EIO;  // the file has become shorter
    return false;
  };
  return whole(fixed, offset) && whole(trailer, offset + filep->geometry.reclen);
}

int variable_part(isam::ConstBytes trailer, std::string& bytes) {
  bytes.clear();
  if (!filep->geometry.varlen) return 0;
  const isam::KeepError keep;
  isam::clear_errors();
  const int most = filep->geometry.maxreclen - filep->geometry.reclen;
  const auto wanted = static_cast<std::size_t>(std::clamp(length_of(trailer), 0, most));
  isam::PieceChain chain{reference_of(trailer)};
  while (chain.pointer() != 0 && bytes.size() < wanted) {
    const isam::PageHold page = chain.read();
    if (!page) break;
    const isam::Rpage::Slot slot = isam::Rpage{page}.slot(chain.slot());
    const auto length = std::min(static_cast<std::size_t>(slot.length), wanted - bytes.size());
    const auto offset = static_cast<std::size_t>(slot.offset);
    if (length > 0) bytes += as_text(isam::ConstBytes{page.bytes()}.subspan(offset, length));
    if (!chain.rprwalk()) break;
  }
  return system_error();
}

namespace {

// The file may end in the slot of the last record. Where that has its state and reads as a record,
// with zeros for what is missing, it is one.
int find_torn(const checker::Check& check, BadRecords& bad) {
  const std::int64_t whole = common::file_size(filep->data.fd) / isam::slot_size();
  if (whole >= dictp->d_nextdata()) return 0;
  const auto record = static_cast<std::int32_t>(whole + 1);
  if (check.datmap.tstbit(record)) return 0;
  std::vector<isam::Byte> bytes(static_cast<std::size_t>(slot_bytes(record)));
  const std::int64_t offset = whole * isam::slot_size();
  if (common::read_at(filep->data.fd, bytes, offset) < 0) return errno;
  if (std::ranges::all_of(bytes, [](isam::Byte byte) { return byte == 0; })) return 0;
  bad.push_back({record, Fate::kDropped, Why::kTorn});
  return 0;
}

}  // namespace

int find_bad_records(const checker::Check& check, const std::set<std::int32_t>& sharing,
                     Fate unreadable_fate, BadRecords& bad) {
  const bool varlen = filep->geometry.varlen;
  const auto fixed = static_cast<std::size_t>(filep->geometry.reclen);
  std::vector<isam::Byte> buffer(static_cast<std::size_t>(filep->geometry.maxreclen) + 1);
  isam::RecordLocks* const locks = check.listener.locks();
  const auto look = [&](std::int32_t record, isam::ConstBytes slot) {
    const isam::ConstBytes trailer = slot.subspan(fixed);
    const isam::Byte state = trailer[0];
    if (state == isam::kRecordPresent) {
      if (!varlen) return 0;
      const bool has_part = reference_of(trailer) != 0 || length_of(trailer) != 0;
      const Part part = has_part ? part_of(record, trailer, buffer) : Part::kWhole;
      if (part == Part::kNotKnown) return errno;
      if (part == Part::kLost) {
        bad.push_back({record, unreadable_fate, Why::kUnreadable});
      } else if (sharing.contains(record)) {
        bad.push_back({record, unreadable_fate, Why::kShared});
      }
    } else if (locks != nullptr && locks->find(record) != nullptr) {
      return 0;  // an open transaction keeps it
    } else if (state != isam::kRecordAbsent) {
      bad.push_back({record, Fate::kDropped, Why::kOddState});
    } else if (varlen && (reference_of(trailer) != 0 || length_of(trailer) != 0)) {
      bad.push_back({record, Fate::kCleared, Why::kReferenceLeft});
    }
    return 0;
  };
  if (const int failed = look_at_slots(check, "Looking for bad records", look)) return failed;
  isam::clear_errors();
  return find_torn(check, bad);
}

bool are_still_unreadable(const BadRecords& records) {
  std::vector<isam::Byte> trailer(static_cast<std::size_t>(trailer_size()));
  std::vector<isam::Byte> buffer(static_cast<std::size_t>(filep->geometry.maxreclen) + 1);
  return std::ranges::all_of(records, [&](const BadRecord& bad) {
    if (bad.why != Why::kUnreadable) return true;
    return read_slot(bad.record, {}, trailer) &&
           part_of(bad.record, trailer, buffer) == Part::kLost;
  });
}

namespace {

// What is added counts where a record is in both.
void add_records(BadRecords& records, BadRecords added) {
  if (added.empty()) return;
  added.insert(added.end(), records.begin(), records.end());
  std::ranges::stable_sort(added, {}, &BadRecord::record);
  const auto same_record = [](const BadRecord& a, const BadRecord& b) {
    return a.record == b.record;
  };
  added.erase(std::unique(added.begin(), added.end(), same_record), added.end());
  records = std::move(added);
}

}  // namespace

int find_equal_keys(const checker::Check& check, const keydescr& k, BadRecords& records,
                    SameKeys& same_keys) {
  const auto length = static_cast<std::size_t>(k.keylen);
  const auto fixed = static_cast<std::size_t>(filep->geometry.reclen);
  const isam::KeyOrder order{k};
  const isam::SortKey sort_key{k};
  const bool sortable = isam::SortKey::possible(k);
  common::Sorter::Shape shape{.entry_size = length + sizeof(std::int32_t),
                              .key_size = length,
                              .memory = kMemory,
                              .folder = temporary_folder(),
                              .order = {}};
  if (!sortable) {
    shape.order = [&](const isam::Byte* a, const isam::Byte* b) { return order.compare(a, b); };
  }
  common::Sorter sorter{shape};
  std::vector<isam::Byte> entry(shape.entry_size);
  std::vector<isam::Byte> key(length);
  auto bad = records.cbegin();
  const auto look = [&](std::int32_t record, isam::ConstBytes slot) {
    while (bad != records.cend() && bad->record < record) ++bad;
    const bool is_bad = bad != records.cend() && bad->record == record;
    const bool presented = is_bad && bad->fate == Fate::kPresented;
    if (slot[fixed] != isam::kRecordPresent && !presented) return 0;
    if (is_bad && bad->fate == Fate::kDropped) return 0;
    isam::Byte* to = sortable ? key.data() : entry.data();
    for (int i = 0; i < k.nparts; ++i) {
      const auto part = static_cast<std::size_t>(k.part[i].length);
      std::memcpy(to, slot.data() + k.part[i].start, part);
      to += part;
    }
    if (sortable) sort_key.make(key.data(), entry.data());
    common::stlong(record, entry.data() + length);
    return sorter.add(entry.data()) != 0 ? errno : 0;
  };
  if (const int failed = look_at_slots(check, "Looking for equal keys", look)) return failed;
  if (sorter.finish() != 0) return errno;
  BadRecords equals;
  bool any = false;
  std::int32_t stays = 0;
  while (const isam::Byte* next = sorter.next()) {
    const bool equal = any && (sortable ? std::memcmp(key.data(), next, length) == 0
                                        : order.compare(key.data(), next) == 0);
    any = true;
    std::memcpy(key.data(), next, length);
    if (equal) {
      const std::int32_t record = common::ldlong(next + length);
      equals.push_back({record, Fate::kDropped, Why::kEqualKeys});
      same_keys.emplace_back(record, stays);
    } else {
      stays = common::ldlong(next + length);
    }
  }
  add_records(records, std::move(equals));
  std::ranges::stable_sort(same_keys, {}, &SameKeys::value_type::first);
  return sorter.error();
}

}  // namespace zentra
