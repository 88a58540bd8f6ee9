// writer: one process that wrote the log, as far as a recovery has read it.
#pragma once

#include <cstdint>
#include <map>

#include "txlog/heldrecords.h"

namespace isam::txlog {

// A file by a writer's number of its open, as the log was read.
struct NamedFile {
  ReplayFile* file = nullptr;
  std::uint32_t serial = 0;  // of the writer then
};

struct Writer {
  std::int32_t process = 0;
  std::uint32_t serial = 0;  // of its own, when several processes had the number; 0: not known
  bool begun = false;        // inside a transaction
  std::int64_t begin = 0;    // ... which begins here
  std::int64_t last = 0;     // offset of its last record
  HeldList held;             // by Held::next
  std::map<int, NamedFile> named;
  std::map<int, ReplayFile*> opened;  // by number too, as the log was applied
  // The record that its last change outside transactions is about; see Doubts.
  ReplayFile* doubted_file = nullptr;
  std::int32_t doubted_number = 0;
};

}  // namespace isam::txlog
