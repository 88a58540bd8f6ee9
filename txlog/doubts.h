// doubts: images that are the last of their writers. A process that was killed may have logged such
// a change and not made it.
//
// Of each record only the newest is kept: a change by somebody else confirms those before it.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "isam/log/logformat.h"
#include "txlog/replayfiles.h"
#include "txlog/writer.h"

namespace isam::txlog {

struct Doubt {
  std::uint32_t serial = 0;  // of the writer
  LogType type = LogType::kUnknown;
  std::int64_t offset = 0;
};

class Doubts {
 public:
  // The newest of a record, unless all numbers of the file have changed since; null for none.
  [[nodiscard]] const Doubt* find(const ReplayFile& file, std::int32_t number) const {
    if (doubts_.empty()) return nullptr;
    const auto found = doubts_.find(key(file, number));
    const bool stands = found != doubts_.end() && found->second.offset > file.renumbered;
    return stands ? &found->second : nullptr;
  }
  // From now on the change that the writer's last record tells is in doubt, and none before it.
  void put(Writer& writer, ReplayFile& file, std::int32_t number, LogType type) {
    end(writer);
    doubts_[key(file, number)] = {writer.serial, type, writer.last};
    writer.doubted_file = &file;
    writer.doubted_number = number;
    writer.doubted_at = writer.last;
  }
  // Nothing about the record is in doubt any more.
  void forget(const ReplayFile& file, std::int32_t number) {
    if (!doubts_.empty()) doubts_.erase(key(file, number));
  }
  // The writer has gone on, so its change is not in doubt. Whether that was settled before: by
  // another change of the record, or because the change gave way.
  bool end(Writer& writer) {
    if (writer.doubted_file == nullptr) return false;
    const auto found = doubts_.find(key(*writer.doubted_file, writer.doubted_number));
    const bool stands = found != doubts_.end() && found->second.serial == writer.serial;
    if (stands) doubts_.erase(found);
    writer.doubted_file = nullptr;
    return !stands;
  }

 private:
  static std::uint64_t key(const ReplayFile& file, std::int32_t number) {
    return (std::uint64_t{file.id} << 32) | static_cast<std::uint32_t>(number);
  }

  std::unordered_map<std::uint64_t, Doubt> doubts_;
};

}  // namespace isam::txlog
