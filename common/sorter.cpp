#include "common/sorter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <utility>

#include "common/io.h"

namespace common {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
constexpr std::size_t kLeastMergeBuffer = std::size_t{64} << 10;
constexpr std::size_t kSpillBuffer = std::size_t{1} << 20;

}  // namespace

// One sorted run of the temporary file, read through a buffer.
struct Sorter::Run {
  std::int64_t offset;  // of what the buffer takes next, in the file
  std::int64_t begin;   // of the run, in the file
  std::int64_t end;     // ... and where it ends
  std::vector<Byte> buffer;
  std::size_t at = 0;           // in the buffer: behind the entry `least`
  std::size_t filled = 0;       // bytes of the buffer that were read
  const Byte* least = nullptr;  // the run's first entry that next() has not passed yet
  std::size_t number = 0;       // counts the runs: an earlier one holds what was added earlier
};

// An entry takes its own bytes and a place in both halves of the radix sort.
Sorter::Sorter(Shape shape)
    : shape_(std::move(shape)),
      entries_per_block_(std::max<std::size_t>(1, kBlockBytes / shape_.entry_size)),
      most_entries_(std::max<std::size_t>(
          1024, shape_.memory / (shape_.entry_size + 2 * sizeof(Reference)))) {}

Sorter::~Sorter() = default;

// The eight bytes from skip_ on; keys that end earlier are as if padded with zero bytes.
std::uint64_t Sorter::prefix_of(const Byte* entry) const {
  std::uint64_t prefix = 0;
  std::memcpy(&prefix, entry + skip_, std::min(sizeof prefix, shape_.key_size - skip_));
  return __builtin_bswap64(prefix);
}

int Sorter::compare(const Byte* a, const Byte* b) const {
  return shape_.order ? shape_.order(a, b) : std::memcmp(a, b, shape_.key_size);
}

int Sorter::add(const Byte* entry) {
  if (count_ == most_entries_ && spill() != 0) return -1;
  const std::size_t block = count_ / entries_per_block_;
  if (block == blocks_.size()) {
    blocks_.push_back(
        std::make_unique_for_overwrite<Byte[]>(entries_per_block_ * shape_.entry_size));
  }
  std::memcpy(blocks_[block].get() + count_ % entries_per_block_ * shape_.entry_size, entry,
              shape_.entry_size);
  ++count_;
  return 0;
}

std::size_t Sorter::shared_bytes() const {
  std::size_t shared = count_ == 0 ? 0 : shape_.key_size;
  const Byte* first = count_ == 0 ? nullptr : entry_at(0);
  for (std::size_t i = 1; i < count_ && shared > 0; ++i) {
    shared =
        static_cast<std::size_t>(std::mismatch(first, first + shared, entry_at(i)).first - first);
  }
  return shared;
}

void Sorter::sort_references() {
  skip_ = shape_.order ? 0 : shared_bytes();
  references_.clear();
  references_.reserve(count_);
  for (std::size_t i = 0; i < count_; ++i) {
    references_.push_back({shape_.order ? 0 : prefix_of(entry_at(i)), entry_at(i)});
  }
  // With a given order all prefixes are 0: then all entries are sorted as one group of equal ones.
  if (!shape_.order) sort_by_prefix();
  if (shape_.order || skip_ + sizeof(std::uint64_t) < shape_.key_size) sort_equal_prefixes();
}

// Radix sort from the last byte to the first. A byte that is the same in all prefixes is left out.
void Sorter::sort_by_prefix() {
  constexpr std::size_t kDigits = 256;
  std::array<std::array<std::size_t, kDigits>, sizeof(std::uint64_t)> counts{};
  for (const Reference& reference : references_) {
    for (std::size_t byte = 0; byte < counts.size(); ++byte) {
      ++counts[byte][reference.prefix >> (8 * byte) & 0xFF];
    }
  }
  scattered_.resize(references_.size());
  for (std::size_t byte = 0; byte < counts.size(); ++byte) {
    std::array<std::size_t, kDigits>& places = counts[byte];
    if (std::ranges::find(places, references_.size()) != places.end()) continue;
    std::exclusive_scan(places.begin(), places.end(), places.begin(), std::size_t{0});
    for (const Reference& reference : references_) {
      scattered_[places[reference.prefix >> (8 * byte) & 0xFF]++] = reference;
    }
    references_.swap(scattered_);
  }
}

void Sorter::sort_equal_prefixes() {
  for (auto first = references_.begin(); first != references_.end();) {
    const auto last = std::find_if(first, references_.end(),
                                   [&](const Reference& r) { return r.prefix != first->prefix; });
    if (last - first > 1) {
      std::stable_sort(first, last, [this](const Reference& a, const Reference& b) {
        return compare(a.entry, b.entry) < 0;
      });
    }
    first = last;
  }
}

// An unnamed file, so that nothing is left behind by a killed process.
int Sorter::open_spill_file() {
  if (spill_file_) return 0;
  spill_file_ = FileHold{open_file(shape_.folder.c_str(), O_TMPFILE | O_RDWR, S_IRUSR | S_IWUSR)};
  if (spill_file_) return 0;
  std::string name = shape_.folder + "/kestro-sort-XXXXXX";
  spill_file_ = FileHold{::mkostemp(name.data(), O_CLOEXEC)};
  if (!spill_file_) return -1;
  ::unlink(name.c_str());
  return 0;
}

int Sorter::spill() {
  if (open_spill_file() != 0) return -1;
  sort_references();
  auto run = std::make_unique<Run>();
  run->offset = run->begin = spill_end_;
  std::vector<Byte> out;
  out.reserve(kSpillBuffer + shape_.entry_size);
  const auto write_out = [&] {
    if (write_at(spill_file_.get(), out, spill_end_) != 0) return -1;
    spill_end_ += static_cast<std::int64_t>(out.size());
    out.clear();
    return 0;
  };
  for (const Reference& reference : references_) {
    out.insert(out.end(), reference.entry, reference.entry + shape_.entry_size);
    if (out.size() >= kSpillBuffer && write_out() != 0) return -1;
  }
  if (write_out() != 0) return -1;
  run->end = spill_end_;
  run->number = runs_.size();
  runs_.push_back(std::move(run));
  count_ = 0;
  return 0;
}

int Sorter::finish() {
  if (runs_.empty()) {
    sort_references();
    return 0;
  }
  if (count_ > 0 && spill() != 0) return -1;
  start_merge();
  errno = error_;
  return error_ == 0 ? 0 : -1;
}

void Sorter::start_merge() {
  blocks_.clear();
  references_ = {};
  scattered_ = {};
  const std::size_t share =
      std::max(kLeastMergeBuffer, shape_.memory / (2 * runs_.size())) / shape_.entry_size;
  for (const auto& run : runs_) {
    run->buffer.resize(std::max<std::size_t>(1, share) * shape_.entry_size);
  }
  fill_heap();
}

void Sorter::fill_heap() {
  for (const auto& run : runs_) {
    if (refill(*run)) heap_.push_back(run.get());
  }
  for (std::size_t i = heap_.size(); i-- > 0;) sift_down(i);
}

void Sorter::rewind() {
  position_ = 0;
  for (const auto& run : runs_) {
    run->offset = run->begin;
    run->at = run->filled = 0;
  }
  heap_.clear();
  advance_ = false;
  fill_heap();
}

// Moves the run's `least` to its next entry, which is read when the buffer is used up. False at the
// end of the run, or with error_ when the read fails.
bool Sorter::refill(Run& run) {
  if (run.at == run.filled) {
    const std::size_t wanted =
        std::min(run.buffer.size(), static_cast<std::size_t>(run.end - run.offset));
    if (wanted == 0) return false;
    const ssize_t got = read_at(spill_file_.get(), {run.buffer.data(), wanted}, run.offset);
    if (got != static_cast<ssize_t>(wanted)) {
      error_ = got < 0 ? errno : EIO;
      return false;
    }
    run.offset += got;
    run.at = 0;
    run.filled = wanted;
  }
  run.least = run.buffer.data() + run.at;
  run.at += shape_.entry_size;
  return true;
}

bool Sorter::before(const Run& a, const Run& b) const {
  const int order = compare(a.least, b.least);
  return order != 0 ? order < 0 : a.number < b.number;
}

void Sorter::sift_down(std::size_t at) {
  for (;;) {
    std::size_t least = at;
    for (std::size_t child = 2 * at + 1; child <= 2 * at + 2 && child < heap_.size(); ++child) {
      if (before(*heap_[child], *heap_[least])) least = child;
    }
    if (least == at) return;
    std::swap(heap_[at], heap_[least]);
    at = least;
  }
}

const Byte* Sorter::next() {
  if (runs_.empty()) {
    if (position_ == references_.size()) return nullptr;
    // Entries lie in memory as they were added: the next ones are fetched ahead of their turn.
    constexpr std::size_t kAhead = 16;
    if (position_ + kAhead < references_.size()) {
      __builtin_prefetch(references_[position_ + kAhead].entry);
    }
    return references_[position_++].entry;
  }
  if (advance_) {
    // A run that has ended leaves the heap.
    if (!refill(*heap_.front())) {
      std::swap(heap_.front(), heap_.back());
      heap_.pop_back();
    }
    sift_down(0);
  }
  advance_ = !heap_.empty() && error_ == 0;
  return advance_ ? heap_.front()->least : nullptr;
}

}  // namespace common
