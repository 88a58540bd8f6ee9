// filecopy: the bytes of a file into another one, and what belongs to a file beside its bytes.
//
// Gives   the same size and contents at the least cost that the system has: shared blocks, a copy
//         inside the system, a copy through this process; holes stay holes
#pragma once

#include <cstdint>
#include <limits>

namespace common {

// Makes `to`, an empty file, like `from`: 0, or -1 with errno.
[[nodiscard]] int copy_contents(int from, int to);

// Makes the bytes of `to` from offset `at` to `end` like those of `from`, as far as `from` goes.
// Writes only pieces that differ. 0, or -1 with errno.
[[nodiscard]] int copy_differences(int from, int to, std::int64_t at, std::int64_t end);

// Gives `to` the owner, permissions and extended attributes of `from`: 0, or -1 with errno when one
// cannot be read or given. A file whose attributes cannot be listed counts as having none.
[[nodiscard]] int copy_attributes(int from, int to);

// Makes `sum` the checksum of the file's bytes in front of `end` (docs/format.md): 0, or -1 with
// errno.
[[nodiscard]] int checksum_of(int fd, std::uint64_t& sum,
                              std::int64_t end = std::numeric_limits<std::int64_t>::max());

}  // namespace common
