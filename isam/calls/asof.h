// asof: what says of copies made in a call that they are still right, without entering the file
// again.
//
// Keeps   A1 copies are made in a call that has entered the file, and serve as long as its
//            dictionary is, byte for byte, what it was then. Whoever changes a record or a node
//            raises the stamp in the dictionary before his call returns, a program of others too.
//            So as long as the old one can be seen no change has returned to its caller, and the
//            answer is that of a moment before it
//         A2 the dictionary is looked at through the mapping, after all that this process was told
//            before; where a mapping may lag behind the file (network file systems) nothing is read
//            ahead. Of an exclusive open the dictionary in memory counts
// Never   lets anything be served from the file or the page pool: another process may be in the
//         midst of writing
#pragma once

#include <fcntl.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "common/io.h"
#include "isam/base/current.h"

namespace isam {

class AsOf {
 public:
  // Copies are made in the call that has entered this file.
  void note(const OpenPair& file) {
    dictionary_ = file.cached.dictionary;
    generation_ = file.cached.generation;
  }

  // Whether they still serve. Not where a call that enters would do more than read: open the data
  // file again, tell a late write that failed, or count towards the delayed write of the
  // dictionary.
  [[nodiscard]] bool stands(OpenPair& file) const {
    if (file.data.fd < 0 || file.cached.generation != generation_) return false;
    if (file.locks.exclusives > 0) {
      const bool is_settled = !file.unwritten.dictionary && file.unwritten.failed.error == 0;
      return is_settled && is_same(file.cached.dictionary);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    Dictionary now;
    return file.index.map.look(now.raw, 0) && is_same(now);
  }

 private:
  [[nodiscard]] bool is_same(const Dictionary& other) const {
    return std::memcmp(dictionary_.raw, other.raw, kDictionarySize) == 0;
  }

  Dictionary dictionary_{};
  std::uint64_t generation_ = 0;
};

// Whether what others write to the dictionary can be seen without a system call.
[[nodiscard]] inline bool shows_writes(PairFile& index) {
  if (!index.map.covers(kDictionarySize, 0)) return false;
  if (!index.map_shows_writes) {
    // Where one file system is laid over another, a file opened only to read may be the lower copy
    // of it, while others write to the upper one.
    index.map_shows_writes = index.mode == O_RDWR && common::mapping_shows_writes(index.fd);
  }
  return *index.map_shows_writes;
}

}  // namespace isam
