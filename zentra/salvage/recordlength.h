// recordlength: the record length that the state bytes of a data file tell.
//
// States stand at the same place of each slot, and are one of two values. Windows all over the file
// are looked at: one that a length does not fit counts nothing, so that a length is found also
// where parts of the file are overwritten.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "zentra/salvage/rescuefile.h"
#include "zentra/salvage/slotwalk.h"

namespace zentra {

// What the windows say of a shape.
struct ShapeFit {
  std::int64_t windows = 0;  // that have a state by this shape
  std::int64_t fitting = 0;  // ... whose states hardly ever are odd
  std::int64_t slots = 0;    // states in those
  std::int64_t present = 0;  // ... of records that are present
  // Whether nothing speaks against it.
  [[nodiscard]] bool may_be() const { return fitting * 4 >= windows; }
};

class RecordLength {
 public:
  explicit RecordLength(RescueFile& file);

  [[nodiscard]] ShapeFit fit_of(const SlotShape& shape) const;
  // The same by nothing but the states, where all references may be damaged.
  [[nodiscard]] ShapeFit fit_of_states(const SlotShape& shape) const;
  // The same where slots may begin at any byte, and elsewhere in each window.
  [[nodiscard]] ShapeFit fit_anywhere(const SlotShape& shape) const;

  struct Found {
    SlotShape shape;
    ShapeFit fit{};
  };
  // The shape by which there are the most records. Of several the longest, since zero bytes in
  // records look like states. None where it may be by chance that one fits.
  [[nodiscard]] std::optional<Found> best() const;
  // The same where slots may begin at any byte.
  [[nodiscard]] std::optional<Found> best_anywhere() const;

 private:
  struct Window {
    std::int64_t offset;
    std::vector<isam::Byte> bytes;
  };

  enum class Look : std::uint8_t { kAll, kStates };
  [[nodiscard]] static bool is_window_fit(const Window& window, const SlotShape& shape,
                                          std::int64_t start, ShapeFit& fit,
                                          Look look = Look::kAll);
  [[nodiscard]] bool is_by_chance(const ShapeFit& fit) const;
  [[nodiscard]] std::vector<int> distances(const Window& window) const;

  std::vector<Window> windows_;
  double present_sign_ = 0;  // how unlikely a byte is one of a present record, as a logarithm
  double state_sign_ = 0;    // ... is any state
};

}  // namespace zentra
