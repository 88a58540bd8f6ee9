#include "isam/files/copies.h"

#include <elf.h>
#include <link.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "isam/base/current.h"

namespace isam {

// What copies of different versions agree on; another layout is another type of note.
struct FilesOpen {
  struct Entry {
    std::atomic<std::uint64_t> device{0};
    std::atomic<std::uint64_t> inode{0};  // 0: the entry is free
  };
  std::atomic<std::int32_t> process{0};  // whose opens these are
  std::int32_t entries = kEntries;
  std::array<Entry, nfiles + 1> files;  // pairs, by their index files, and the log

  static constexpr std::int32_t kEntries = nfiles + 1;
};

}  // namespace isam

// The name is for the note below.
extern "C" {
[[gnu::visibility("hidden"), gnu::used]] isam::FilesOpen isam_files_open;
}

// The note: sizes of name and contents, type, name, contents. The contents are the distance from
// themselves to the table, so that nothing has to be relocated when the object is loaded.
asm(R"(
  .pushsection .note.isam, "a", %note
  .balign 4
  .long 5
  .long 4
  .long 1
  .asciz "isam"
  .balign 4
0:.long isam_files_open - 0b
  .popsection
)");

namespace isam {
namespace {

constexpr char kNoteName[] = "isam";
constexpr std::string_view kStoredName{kNoteName, sizeof kNoteName};  // with its zero byte
constexpr std::uint32_t kNoteType = 1;

struct Identity {
  std::uint64_t device;
  std::uint64_t inode;
};
constexpr Identity kNoFile{0, 0};

struct Search {
  Identity file;
  bool found = false;
};

bool is_of(const FilesOpen::Entry& entry, const Identity& file) {
  return entry.inode == file.inode && entry.device == file.device;
}

bool has(const FilesOpen& copy, const Identity& file) {
  if (copy.process != ::getpid() || copy.entries != FilesOpen::kEntries) return false;
  return std::ranges::any_of(copy.files,
                             [&](const FilesOpen::Entry& entry) { return is_of(entry, file); });
}

// Looks for the file in the tables of other copies that the notes of a segment lead to.
void look_at_notes(std::span<const char> notes, std::size_t alignment, Search& search) {
  const auto padded = [=](std::size_t size) {
    return (size + alignment - 1) / alignment * alignment;
  };
  ElfW(Nhdr) note;
  while (notes.size() >= sizeof note) {
    std::memcpy(&note, notes.data(), sizeof note);
    notes = notes.subspan(sizeof note);
    const std::size_t size = padded(note.n_namesz) + padded(note.n_descsz);
    if (size > notes.size()) return;
    const bool is_ours = note.n_type == kNoteType && note.n_descsz == sizeof(std::int32_t) &&
                         std::string_view{notes.data(), note.n_namesz} == kStoredName;
    if (is_ours) {
      const char* const from = notes.data() + padded(note.n_namesz);
      std::int32_t distance;
      std::memcpy(&distance, from, sizeof distance);
      const auto* const copy = reinterpret_cast<const FilesOpen*>(from + distance);
      if (copy != &isam_files_open && has(*copy, search.file)) search.found = true;
    }
    notes = notes.subspan(size);
  }
}

int look_at_object(dl_phdr_info* object, std::size_t /*size*/, void* data) {
  auto& search = *static_cast<Search*>(data);
  for (const ElfW(Phdr) & segment : std::span{object->dlpi_phdr, object->dlpi_phnum}) {
    if (segment.p_type != PT_NOTE) continue;
    // An object's addresses are numbers here.
    const auto* const start =
        reinterpret_cast<const char*>(object->dlpi_addr + segment.p_vaddr);  // NOLINT
    look_at_notes({start, segment.p_memsz}, segment.p_align == 8 ? 8 : 4, search);
  }
  return search.found ? 1 : 0;
}

void replace_entry(Identity before, Identity after) {
  for (FilesOpen::Entry& entry : isam_files_open.files) {
    if (!is_of(entry, before)) continue;
    entry.device = after.device;
    entry.inode = after.inode;
    return;
  }
}

}  // namespace

void note_open(dev_t device, ino_t inode) {
  isam_files_open.process = ::getpid();
  replace_entry(kNoFile, {device, inode});
}

void note_closed(dev_t device, ino_t inode) { replace_entry({device, inode}, kNoFile); }

bool another_copy_has(dev_t device, ino_t inode) {
  Search search{{device, inode}};
  ::dl_iterate_phdr(look_at_object, &search);
  return search.found;
}

}  // namespace isam
