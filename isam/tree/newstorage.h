// newstorage: variable parts in storage pages behind the nodes that the dictionary counts.
//
// Needs   what NewNodes needs
// Keeps   the storage pages there are as they are: the only change of one, of the link from the
//         head of a list back to the new pages before it, is kept back
// Gives   pages that are filed as isam/records/rpagelists files them
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "isam/tree/newnodes.h"

namespace isam {

class NewStorage {
 public:
  explicit NewStorage(NewNodes& nodes) : nodes_(nodes) {}

  // Stores a variable part: its first pointer, 0 for no bytes, -1 with iserrno.
  [[nodiscard]] std::int32_t store(ConstBytes part);
  // Writes the pages that are still in memory and puts the lists' heads into the dictionary
  // `after`: 0, or -1 with iserrno.
  [[nodiscard]] int finish(Dictionary& after);

 private:
  struct Page {
    std::int32_t node = 0;
    NewNodes::Page bytes{};
  };

  [[nodiscard]] int begin(Page& page);
  [[nodiscard]] std::int32_t put(Page& page, ConstBytes piece);
  [[nodiscard]] int close(Page& page);

  NewNodes& nodes_;
  std::optional<Page> open_;  // takes small pieces
  // The page filed last in each list, not written before the one that comes before it is known.
  std::array<std::optional<Page>, rpage::kEmptyClass> last_filed_;
  std::array<std::int32_t, rpage::kEmptyClass> first_filed_{};
};

}  // namespace isam
