#include "zentra/keys/keyguess.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "checker/progress.h"
#include "common/sorter.h"
#include "isam/base/current.h"
#include "isam/pool/buffers.h"
#include "isam/records/datafile.h"
#include "zentra/check/collector.h"
#include "zentra/keys/keyorders.h"
#include "zentra/keys/keysfile.h"

namespace zentra {
namespace {

using Offsets = std::vector<std::int16_t>;

constexpr std::int64_t kSampled = 500;  // records by which places are looked for
constexpr int kMostTries = 8;           // of places that the sampled records allow
constexpr std::size_t kMostOthers = 6;
// What is sorted: the number of a record, and its key.
constexpr std::size_t kKeyAt = 4;
constexpr std::size_t kSortMemory = std::size_t{16} << 20;

// The bytes of a record that keys are taken from.
class RecordReader {
 public:
  RecordReader()
      : length_(static_cast<std::size_t>(isam::filep->geometry.reclen)),
        bytes_(static_cast<std::size_t>(isam::filep->geometry.maxreclen) + length_ + 1) {}

  // Null: they cannot be read.
  [[nodiscard]] const isam::Byte* read(std::int32_t record) {
    const std::int64_t offset = std::int64_t{record - 1} * isam::slot_size();
    const isam::Bytes fixed{bytes_.data(), length_};
    const bool is_read = isam::bfcopy_data(offset, fixed, {}) || isam::dataread(record, bytes_) > 0;
    return is_read ? bytes_.data() : nullptr;
  }
  [[nodiscard]] std::size_t length() const { return length_; }

 private:
  std::size_t length_;
  std::vector<isam::Byte> bytes_;
};

// Where in a record each byte of a key may come from.
class Places {
 public:
  Places(int keylen, std::size_t length) : of_(static_cast<std::size_t>(keylen)) {
    for (Offsets& offsets : of_) {
      for (std::size_t i = 0; i < length; ++i) offsets.push_back(static_cast<std::int16_t>(i));
    }
  }

  // Leaves what this record allows: false when that is nothing.
  [[nodiscard]] bool narrow(const isam::Byte* key, const isam::Byte* record) {
    for (std::size_t i = 0; i < of_.size(); ++i) {
      std::erase_if(of_[i], [&](std::int16_t offset) { return record[offset] != key[i]; });
      if (of_[i].empty()) return false;
    }
    return true;
  }
  // As few runs as can be.
  [[nodiscard]] std::vector<KeyRun> runs() const {
    std::vector<KeyRun> runs;
    for (int from = 0; from < std::ssize(of_);) {
      KeyRun longest{from, from, 0};
      for (const std::int16_t offset : of_[static_cast<std::size_t>(from)]) {
        const int end = end_of_run(from, offset);
        if (end > longest.end) longest = {from, end, offset};
      }
      runs.push_back(longest);
      from = longest.end;
    }
    return runs;
  }
  [[nodiscard]] bool are_certain() const {
    return std::ranges::all_of(of_, [](const Offsets& offsets) { return offsets.size() == 1; });
  }
  // Where else a run may begin.
  [[nodiscard]] Offsets others(const KeyRun& run) const {
    Offsets others;
    for (const std::int16_t offset : of_[static_cast<std::size_t>(run.from)]) {
      if (offset != run.start && end_of_run(run.from, offset) >= run.end) others.push_back(offset);
    }
    return others;
  }

 private:
  [[nodiscard]] int end_of_run(int from, int offset) const {
    int end = from;
    while (end < std::ssize(of_) &&
           std::ranges::binary_search(of_[static_cast<std::size_t>(end)], offset + end - from)) {
      ++end;
    }
    return end;
  }

  std::vector<Offsets> of_;  // in ascending order
};

// The cheapest way to cut a run into parts, and whether there is another one.
class Cutting {
 public:
  Cutting(const KeyOrders& orders, const KeyRun& run) : orders_(orders), run_(run) {
    const auto size = static_cast<std::size_t>(run.end - run.from);
    best_.assign(size + 1, {});
    best_[0].cost = 0;
    ways_.assign(size + 1, {});
    ways_[0][kNumber] = 1;
    for (int from = run.from; from < run.end; ++from) {
      for (int end = from + 1; end <= run.end; ++end) try_part(from, end);
    }
  }

  [[nodiscard]] bool is_possible() const { return best_.back().cost < kNever; }
  [[nodiscard]] bool is_only_one() const {
    int all = 0;
    for (const int ways : ways_.back()) all += ways;
    return all == 1;
  }
  [[nodiscard]] std::vector<keypart> parts() const {
    std::vector<keypart> parts;
    if (!is_possible()) return parts;
    for (int end = run_.end; end > run_.from; end = best_[at(end)].from) {
      const Best& best = best_[at(end)];
      parts.push_back({.start = static_cast<std::int16_t>(run_.start + best.from - run_.from),
                       .length = static_cast<std::int16_t>(end - best.from),
                       .type = static_cast<std::int16_t>(best.type)});
    }
    std::ranges::reverse(parts);
    return parts;
  }

 private:
  static constexpr int kNever = std::numeric_limits<int>::max();
  // What a cut ends with: of characters in the same order, side by side, one part is as good as
  // two.
  enum Last { kNumber, kAscending, kDescending };
  struct Best {
    int cost = kNever;
    int from = 0;
    int type = 0;
  };

  [[nodiscard]] std::size_t at(int place) const {
    return static_cast<std::size_t>(place - run_.from);
  }

  void try_part(int from, int end) {
    constexpr int kPart = 100;  // few parts first
    for (const int type : orders_.types_of(from, end)) {
      const Last last = (type & ~KT_DESC) != KT_CHAR ? kNumber
                        : (type & KT_DESC) != 0      ? kDescending
                                                     : kAscending;
      for (const Last before : {kNumber, kAscending, kDescending}) {
        if (last != kNumber && before == last) continue;
        int& ways = ways_[at(end)][last];
        ways = std::min(2, ways + ways_[at(from)][before]);
      }
      const int cost = best_[at(from)].cost;
      if (cost == kNever) continue;
      const int added = kPart + taste(from, end, type);
      if (cost + added < best_[at(end)].cost) best_[at(end)] = {cost + added, from, type};
    }
  }
  // Text is likelier in characters, other bytes in a number, and ascending order than descending.
  [[nodiscard]] int taste(int from, int end, int type) const {
    const bool is_characters = (type & ~KT_DESC) == KT_CHAR;
    const bool fits = is_characters == orders_.is_text(from, end);
    return (fits ? 0 : 10) + ((type & KT_DESC) != 0 ? 5 : 0);
  }

  const KeyOrders& orders_;
  KeyRun run_;
  std::vector<Best> best_;                // of the bytes up to each place
  std::vector<std::array<int, 3>> ways_;  // by what they end with: 0, 1, or 2 for more
};

keypart part_of(const KeyRun& run, int type) {
  return {.start = static_cast<std::int16_t>(run.start),
          .length = static_cast<std::int16_t>(run.end - run.from),
          .type = static_cast<std::int16_t>(type)};
}

class Guessing {
 public:
  Guessing(TreeFinder& finder, std::int32_t root, const keydescr& layout, Reading reading)
      : finder_(finder),
        root_(root),
        layout_(layout),
        reading_(reading),
        places_(layout.keylen, reader_.length()) {}

  std::optional<KeyGuess> run() {
    if (!look_for_places()) return {};
    for (int tries = 0; tries < kMostTries; ++tries) {
      const std::vector<KeyRun> runs = places_.runs();
      KeyOrders orders(layout_, runs);
      if (look_at_all(runs, orders)) return describe(runs, orders);
      if (!may_try_again_) return {};
    }
    return {};
  }

 private:
  bool look_for_places() {
    const std::int64_t step = std::max<std::int64_t>(1, finder_.records() / kSampled);
    std::int64_t items = 0;
    return finder_.walk(root_, layout_, [&](const isam::Item& item) {
      if (items++ % step != 0) return true;
      const isam::Byte* const record = read(item.recptr);
      return record != nullptr && places_.narrow(item.key, record);
    });
  }

  // Null: it cannot be read.
  const isam::Byte* read(std::int32_t record) {
    const isam::Byte* const bytes = reader_.read(record);
    if (bytes == nullptr) finder_.note_error();
    return bytes;
  }

  // Whether every record has its key in these runs.
  bool look_at_all(const std::vector<KeyRun>& runs, KeyOrders& orders) {
    may_try_again_ = false;
    checker::Progress progress("Comparing keys with records", finder_.records());
    std::int64_t items = 0;
    const auto length = static_cast<std::size_t>(layout_.keylen);
    std::optional<common::Sorter> sorter;
    if (reading_ == Reading::kByNumber) {
      sorter.emplace(common::Sorter::Shape{.entry_size = kKeyAt + length,
                                           .key_size = kKeyAt,
                                           .memory = kSortMemory,
                                           .folder = temporary_folder(),
                                           .order = {}});
    }
    std::vector<isam::Byte> entry(kKeyAt + length);
    const bool walked = finder_.walk(root_, layout_, [&](const isam::Item& item) {
      progress.at(items++);
      if (!orders.next(item)) return false;
      if (!sorter) return agrees(runs, item.recptr, item.key);
      common::stlong(item.recptr, entry.data());
      std::copy_n(item.key, length, entry.data() + kKeyAt);
      return sorter->add(entry.data()) == 0 || fail(errno);
    });
    return walked && (!sorter || all_agree(runs, *sorter));
  }
  bool agrees(const std::vector<KeyRun>& runs, std::int32_t record, const isam::Byte* key) {
    const isam::Byte* const bytes = read(record);
    if (bytes == nullptr) return false;
    const bool agrees = std::ranges::all_of(runs, [&](const KeyRun& run) {
      return std::equal(key + run.from, key + run.end, bytes + run.start);
    });
    if (!agrees) may_try_again_ = places_.narrow(key, bytes);
    return agrees;
  }
  bool all_agree(const std::vector<KeyRun>& runs, common::Sorter& sorter) {
    if (sorter.finish() != 0) return fail(errno);
    while (const isam::Byte* const entry = sorter.next()) {
      if (!agrees(runs, common::ldlong(entry), entry + kKeyAt)) return false;
    }
    return sorter.error() == 0 || fail(sorter.error());
  }
  bool fail(int system_error) {
    finder_.note_error(system_error);
    return false;
  }

  std::optional<KeyGuess> describe(const std::vector<KeyRun>& runs, const KeyOrders& orders) {
    KeyGuess guess{.key = layout_, .is_certain = places_.are_certain()};
    guess.key.nparts = 0;
    guess.key.keylen = 0;
    if (orders.repeats()) guess.key.flags |= KF_DCOMPRESS;
    if (isam::dictp->d_collate()) guess.is_certain = false;
    for (std::size_t n = 0; n < runs.size(); ++n) {
      const Cutting cutting(orders, runs[n]);
      std::vector<keypart> parts = cutting.parts();
      if (!cutting.is_possible()) {
        // Neither bytes nor numbers are in such an order.
        if (!isam::dictp->d_collate() && !orders.may_be_collated(n)) return {};
        parts = {part_of(runs[n], isam::dictp->d_collate() ? KT_LOCALE : KT_COLL1)};
      }
      if (guess.key.nparts + std::ssize(parts) > MAXPARTS) return {};
      for (const keypart& part : parts) guess.key.part[guess.key.nparts++] = part;
      if (!cutting.is_only_one() || orders.may_be_collated(n)) guess.is_certain = false;
      tell_others(guess, runs[n], parts, orders, n);
    }
    const bool has_numbers = (layout_.flags & KF_DUPS) != 0;
    if (has_numbers && !orders.numbers_are_all_regular()) guess.is_certain = false;
    const bool has_odd_numbers = has_numbers && !orders.numbers_are_regular();
    guess.doubt = (has_odd_numbers ? 100 : 0) + (orders.is_badly_pressed() ? 200 : 0) +
                  10 * static_cast<int>(runs.size()) + (layout_.flags & KF_COMPRESS);
    return guess;
  }

  void tell_others(KeyGuess& guess, const KeyRun& run, const std::vector<keypart>& parts,
                   const KeyOrders& orders, std::size_t number) const {
    const auto add = [&](std::string text) {
      if (guess.others.size() < kMostOthers) guess.others.push_back(std::move(text));
    };
    const auto with_type = [&](int type) {
      keydescr k{};
      k.nparts = 1;
      k.part[0] = part_of(run, type);
      return line_of(k);
    };
    for (const int type : orders.types_of(run.from, run.end)) {
      if (parts.size() != 1 || type != parts.front().type) add(with_type(type));
    }
    if (isam::dictp->d_collate()) add(with_type(KT_LOCALE));
    if (orders.may_be_collated(number)) add(with_type(KT_COLL1));
    for (const std::int16_t offset : places_.others(run)) {
      add(fmt::format("the same bytes from {} on", offset));
    }
  }

  TreeFinder& finder_;
  std::int32_t root_;
  keydescr layout_;
  Reading reading_;
  RecordReader reader_;
  Places places_;
  bool may_try_again_ = false;
};

}  // namespace

std::optional<KeyGuess> guess_key(TreeFinder& finder, std::int32_t root, const keydescr& layout,
                                  Reading reading) {
  return Guessing(finder, root, layout, reading).run();
}

}  // namespace zentra
