// undodata: what stands beside a kept index, so that a repair can be undone as long as nothing has
// changed since.
//
// It is an extended attribute of the kept file, or where there are none a small file beside it
// ("KEPT.undo"); docs/format.md tells its form.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace checker {

struct UndoData {
  struct File {
    std::int64_t size = 0;
    timespec changed{};  // when its bytes were changed last
    friend bool operator==(const File& a, const File& b) {
      return a.size == b.size && a.changed.tv_sec == b.changed.tv_sec &&
             a.changed.tv_nsec == b.changed.tv_nsec;
    }
  };
  struct Index {
    File file;
    std::uint32_t stamp = 0;  // d_modcount
    std::uint64_t checksum = 0;
    friend bool operator==(const Index&, const Index&) = default;
  };
  Index repaired;  // as the repair left it
  Index kept;      // as the repair found it
  File data;
  friend bool operator==(const UndoData&, const UndoData&) = default;
};

// Describe files as they are now: 0, or -1 with errno.
[[nodiscard]] int describe(int fd, UndoData::File& file);
[[nodiscard]] int describe(int fd, UndoData::Index& index);

[[nodiscard]] std::string text_of(const UndoData& data);
[[nodiscard]] std::optional<UndoData> parse_undo_data(const std::string& text);

// The name of the small file that stands beside a kept index.
[[nodiscard]] std::string undo_file_of(const std::string& kept);
// The name of the note about bytes of the data file that a repair has changed
// (zentra/repair/databytes).
[[nodiscard]] std::string data_file_of(const std::string& kept);
// Notes `data` in the attribute of the kept file: 0, or -1 with errno. After a failure the caller
// may write the small file instead.
[[nodiscard]] int store_undo_data(int kept_fd, const UndoData& data);
// What was noted for the kept index of this path, in the attribute or else in the small file;
// nothing when neither can be read.
[[nodiscard]] std::optional<UndoData> load_undo_data(const std::string& kept);
// Removes both, the attribute from the file that is open as `fd`.
void remove_undo_data(int fd, const std::string& kept);

}  // namespace checker
