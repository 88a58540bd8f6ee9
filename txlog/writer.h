// writer: one process that wrote the log, as far as a recovery has read it.
#pragma once

#include <cstdint>
#include <map>

#include "txlog/heldrecords.h"

namespace isam::txlog {

// A file by a writer's number of its open, as the log was read.
struct NamedFile {
  ReplayFile* file = nullptr;
  std::uint32_t epoch = 0;  // of the writer then
  std::int64_t offset = 0;  // where it was named
};

struct Writer {
  std::int32_t process = 0;
  std::uint32_t serial = 0;  // of its own, when several processes had the number; 0: not known
  std::uint32_t epoch = 0;   // counts the times that it was rather another one
  bool begun = false;        // inside a transaction
  std::int64_t begin = 0;    // ... which begins here
  std::int64_t last = 0;     // offset of its last record
  HeldList held;             // by Held::next
  std::map<int, NamedFile> named;
  std::map<int, ReplayFile*> opened;  // by number too, as the log was applied
  // The record that its last change outside transactions is about; see Doubts.
  ReplayFile* doubted_file = nullptr;
  std::int32_t doubted_number = 0;
  std::int64_t doubted_at = 0;
  bool opened_since = false;  // it may be another process since then
};

}  // namespace isam::txlog
