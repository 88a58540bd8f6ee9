// seen: how the files of a pair are at one time, to be compared with how they are later.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>

namespace zentra {

struct Seen {
  struct File {
    dev_t device;
    ino_t inode;
    off_t size;
    timespec changed;
    friend bool operator==(const File& a, const File& b);
  };
  File index;
  File data;
  std::uint32_t stamp;
  friend bool operator==(const Seen&, const Seen&) = default;
};

// Of the current pair; `index_fd` is the index's own. Nothing when the system does not tell.
[[nodiscard]] std::optional<Seen> see(int index_fd);

}  // namespace zentra
