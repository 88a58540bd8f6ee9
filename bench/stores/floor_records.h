// floor_records: the records of floor-exclusive once they are loaded: what is changed in a page of
// the system waits in memory, so that the page is written once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "bench/stores/mapped_file.h"
#include "bench/stores/records.h"

namespace bench {

class FloorRecords {
 public:
  static constexpr std::size_t kSlot = kRecordLength + 1;

  void copy(const MappedFile& file, std::uint32_t slot, Record& to) const {
    const std::size_t at = slot * kSlot;
    const bool waits = waits_.size() > end_page(at) && waits_[at / kPage] && waits_[end_page(at)];
    const char* const from = waits ? &bytes_[at] : file.bytes().subspan(at, kRecordLength).data();
    std::memcpy(to.data(), from, kRecordLength);
  }
  void change(const MappedFile& file, std::uint32_t slot, const char* record) {
    const std::size_t at = slot * kSlot;
    if (waits_.empty()) {  // the file has all records by now
      bytes_.resize(file.bytes().size());
      waits_.resize(bytes_.size() / kPage + 1);
    }
    for (std::size_t page = at / kPage; page <= end_page(at); ++page) {
      if (waits_[page]) continue;
      const std::span<const char> from = page_of(file.bytes(), page);
      std::ranges::copy(from, &bytes_[page * kPage]);
      waits_[page] = true;
    }
    std::memcpy(&bytes_[at], record, kRecordLength);
  }
  void write(const MappedFile& file) {
    for (std::size_t page = 0; page < waits_.size(); ++page) {
      if (waits_[page]) file.write(page_of(bytes_, page), page * kPage);
      waits_[page] = false;
    }
  }

 private:
  static constexpr std::size_t kPage = 4096;

  static std::size_t end_page(std::size_t at) { return (at + kSlot - 1) / kPage; }
  static std::span<const char> page_of(std::span<const char> bytes, std::size_t page) {
    const std::span<const char> rest = bytes.subspan(page * kPage);
    return rest.first(std::min(rest.size(), kPage));
  }

  std::vector<char> bytes_;
  std::vector<bool> waits_;
};

}  // namespace bench
