#include "zentra/salvage/recordlength.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "isam/base/format.h"
#include "zentra/pair/trailer.h"

namespace zentra {
namespace {

constexpr std::int64_t kWindows = 16;
constexpr std::int64_t kSmallestWindow = 512;
constexpr std::int64_t kLargestWindow = std::int64_t{256} << 10;
constexpr std::int64_t kFewMisfits = 10;  // one slot in so many
constexpr std::int64_t kAlike = 100;      // so many that differ by one are as good

// Whether what stands behind a present state may tell of a variable part. One that is longer than
// any page begins in the first slot of a page of its own.
bool is_trailer(isam::ConstBytes trailer) {
  constexpr int kLongestPiece = isam::kMaxStoredNodeSize - 29;
  const int length = common::ldword(trailer.data() + isam::kTrailerLength);
  const std::int32_t reference = reference_of(trailer);
  if (length == 0 || reference == 0) return length == 0 && reference == 0;
  if (length > isam::kMaxRecordLength || isam::rpage::pointer_node(reference) < 2) return false;
  return length <= kLongestPiece || isam::rpage::pointer_slot(reference) == 0;
}

}  // namespace

RecordLength::RecordLength(RescueFile& file) {
  const std::int64_t length = std::clamp(file.size() / kWindows, kSmallestWindow, kLargestWindow);
  const std::int64_t step = std::max(length, (file.size() - length) / (kWindows - 1));
  for (std::int64_t i = 0; i < kWindows; ++i) {
    const std::int64_t offset = i * step;
    if (offset >= file.size()) break;
    Window& window = windows_.emplace_back(Window{
        .offset = offset, .bytes = std::vector<isam::Byte>(static_cast<std::size_t>(length))});
    window.bytes.resize(file.read(window.bytes, offset));
    window.bytes.shrink_to_fit();
  }
  double all = 1;
  double present = 1;
  double absent = 1;
  for (const Window& window : windows_) {
    all += static_cast<double>(window.bytes.size());
    present += static_cast<double>(std::ranges::count(window.bytes, isam::kRecordPresent));
    absent += static_cast<double>(std::ranges::count(window.bytes, isam::kRecordAbsent));
  }
  present_sign_ = std::log(all / present);
  state_sign_ = std::log(all / std::min(all, present + absent));
}

// So many lengths are tried that some of them fit a few bytes of anything.
bool RecordLength::is_by_chance(const ShapeFit& fit) const {
  constexpr int kFewest = 3;
  constexpr double kSure = 14;
  const auto present = static_cast<double>(fit.present);
  const auto absent = static_cast<double>(fit.slots - fit.present);
  return fit.present < kFewest || present * present_sign_ + absent * state_sign_ < kSure;
}

// Whether it has a state by this shape. `fit` gets what there is.
bool RecordLength::is_window_fit(const Window& window, const SlotShape& shape, std::int64_t start,
                                 ShapeFit& fit, Look look) {
  const std::int64_t slot = shape.size();
  const auto size = static_cast<std::int64_t>(window.bytes.size());
  // The first state in the window.
  const std::int64_t behind = window.offset - start - shape.length;
  const std::int64_t first = behind <= 0 ? -behind : (slot - behind % slot) % slot;
  if (first >= size) return false;
  const std::int64_t most_misfits = ((size - first - 1) / slot + 1) / kFewMisfits;
  std::int64_t slots = 0;
  std::int64_t misfits = 0;
  std::int64_t present = 0;
  for (std::int64_t at = first; at < size; at += slot) {
    const auto place = static_cast<std::size_t>(at);
    const isam::Byte state = window.bytes[place];
    bool fits = is_state(state);
    if (state == isam::kRecordPresent) {
      if (look == Look::kAll && shape.varies && at + isam::kVariableTrailer <= size) {
        fits = is_trailer(isam::ConstBytes{window.bytes}.subspan(place, isam::kVariableTrailer));
      }
      ++present;
    }
    ++slots;
    misfits += fits ? 0 : 1;
    if (misfits > most_misfits) break;
  }
  ++fit.windows;
  if (misfits > most_misfits) return true;
  ++fit.fitting;
  fit.slots += slots;
  fit.present += present;
  return true;
}

ShapeFit RecordLength::fit_of(const SlotShape& shape) const {
  ShapeFit fit;
  for (const Window& window : windows_) {
    static_cast<void>(is_window_fit(window, shape, 0, fit));
  }
  return fit;
}

ShapeFit RecordLength::fit_of_states(const SlotShape& shape) const {
  ShapeFit fit;
  for (const Window& window : windows_) {
    static_cast<void>(is_window_fit(window, shape, 0, fit, Look::kStates));
  }
  return fit;
}

std::optional<RecordLength::Found> RecordLength::best() const {
  std::optional<Found> best;
  for (int length = 1; length <= isam::kMaxRecordLength; ++length) {
    for (const bool varies : {true, false}) {
      const SlotShape shape{length, varies};
      const ShapeFit fit = fit_of(shape);
      if (!fit.may_be() || is_by_chance(fit)) continue;
      const std::int64_t enough = best ? best->fit.present - best->fit.present / kAlike : 1;
      if (fit.present >= enough) best = Found{shape, fit};
    }
  }
  return best;
}

// The most frequent distances between one possible state and those that follow.
std::vector<int> RecordLength::distances(const Window& window) const {
  constexpr std::size_t kFollowers = 8;
  constexpr std::size_t kMost = 16;
  std::vector<std::size_t> places;
  for (std::size_t i = 0; i < window.bytes.size(); ++i) {
    if (window.bytes[i] == isam::kRecordPresent) places.push_back(i);
  }
  std::vector<int> counts(static_cast<std::size_t>(isam::kMaxRecordLength) +
                          isam::kVariableTrailer + 1);
  for (std::size_t i = 0; i < places.size(); ++i) {
    for (std::size_t j = i + 1; j <= i + kFollowers && j < places.size(); ++j) {
      const std::size_t distance = places[j] - places[i];
      if (distance < counts.size()) ++counts[distance];
    }
  }
  std::vector<int> all(counts.size());
  std::iota(all.begin(), all.end(), 0);
  std::ranges::partial_sort(all, all.begin() + kMost, [&](int a, int b) {
    return counts[static_cast<std::size_t>(a)] > counts[static_cast<std::size_t>(b)];
  });
  all.resize(kMost);
  std::erase_if(all, [&](int distance) { return counts[static_cast<std::size_t>(distance)] < 2; });
  return all;
}

ShapeFit RecordLength::fit_anywhere(const SlotShape& shape) const {
  ShapeFit all;
  for (const Window& window : windows_) {
    ShapeFit best;
    for (int start = 0; start < shape.size(); ++start) {
      ShapeFit fit;
      static_cast<void>(is_window_fit(window, shape, start, fit));
      if (fit.present > best.present) best = fit;
    }
    all.windows += best.windows;
    all.fitting += best.fitting;
    all.slots += best.slots;
    all.present += best.present;
  }
  return all;
}

// Of each window the likeliest, which all others are then asked for.
std::optional<RecordLength::Found> RecordLength::best_anywhere() const {
  std::vector<SlotShape> likely;
  for (const Window& window : windows_) {
    std::optional<Found> best;
    for (const int slot : distances(window)) {
      for (const bool varies : {true, false}) {
        const SlotShape shape{slot - SlotShape{0, varies}.trailer(), varies};
        for (int start = 0; shape.length > 0 && start < slot; ++start) {
          ShapeFit fit;
          static_cast<void>(is_window_fit(window, shape, start, fit));
          const bool is_better = !best || fit.present > best->fit.present;
          if (is_better && !is_by_chance(fit)) best = Found{shape, fit};
        }
      }
    }
    if (best && std::ranges::find(likely, best->shape) == likely.end()) {
      likely.push_back(best->shape);
    }
  }
  std::optional<Found> best;
  for (const SlotShape& shape : likely) {
    const ShapeFit fit = fit_anywhere(shape);
    if (!best || fit.present > best->fit.present) best = Found{shape, fit};
  }
  return best;
}

}  // namespace zentra
