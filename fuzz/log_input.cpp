#include "fuzz/log_input.h"

#include <vector>

#include "isam/log/logformat.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

namespace log_record = isam::txlog::log_record;
using Bytes = std::vector<std::uint8_t>;

struct Place {
  std::size_t at;
  std::size_t length;
};

std::vector<Place> records_in(const Bytes& log) {
  std::vector<Place> records;
  for (std::size_t at = 1; at + log_record::kSmallest <= log.size();) {
    const auto length = std::size_t{common::ldword(&log[at])};
    if (length < log_record::kSmallest || length > log.size() - at) break;
    records.push_back({at, length});
    at += length;
  }
  return records;
}

// The bytes of a record from its type on, changed somehow.
Bytes changed_record(const Bytes& log, const Place& place) {
  constexpr std::size_t kLengths = log_record::kType + log_record::kTrailer;
  const auto start = log.begin() + static_cast<std::ptrdiff_t>(place.at);
  Bytes inner(start + log_record::kType,
              start + static_cast<std::ptrdiff_t>(place.length) - log_record::kTrailer);
  const std::size_t size = inner.size();
  inner.resize(std::min(log_record::kGreatest - kLengths, 2 * size + 64));
  inner.resize(std::max<std::size_t>(log_record::kPayload - log_record::kType,
                                     LLVMFuzzerMutate(inner.data(), size, inner.size())));
  std::array<std::uint8_t, 2> length{};
  common::stword(static_cast<std::uint32_t>(inner.size() + kLengths), length.data());
  inner.insert(inner.begin(), length.begin(), length.end());
  inner.insert(inner.end(), length.begin(), length.end());
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

namespace fuzz {

void write_log(const std::string& path, Input data) {
  Image log{0xFB, 0x85, 0x9E, 0x78};
  log.insert(log.end(), data.begin() + 1, data.end());
  testing_support::write_file(path, log);
}

}  // namespace fuzz
