#include "isam/files/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "common/holders.h"
#include "common/io.h"
#include "environment/settings.h"
#include "isam/base/errors.h"
#include "isam/files/copies.h"
#include "isam/files/descriptor.h"
#include "isam/pool/buffers.h"

namespace isam {

Open* openp = nullptr;
OpenPair* filep = nullptr;
Dictionary* dictp = nullptr;
int ismaxfds = 0;
int isopenfds = 0;
int txflag = kNotLogging;

namespace {

constexpr std::size_t kMaxBaseName = 122;

// Records are made on first use and kept for the life of the process.
std::array<std::unique_ptr<Open>, nopens> opens;
int opens_made = 0;  // the first of them
std::array<std::unique_ptr<OpenPair>, nfiles> files;
std::vector<Byte> record_buffer;

bool is_open(const std::unique_ptr<OpenPair>& file) { return file && file->usecount >= 0; }

OpenPair* find_file(dev_t device, ino_t inode) {
  for (const auto& file : files) {
    if (is_open(file) && !file->takes_no_open && file->index.device == device &&
        file->index.inode == inode) {
      return file.get();
    }
  }
  return nullptr;
}

// Null when all are in use, or with 116 without memory.
OpenPair* unused_file_record() {
  for (auto& file : files) {
    if (!file) file.reset(new (std::nothrow) OpenPair);
    if (!file) {
      failed(kNoMemory);
      return nullptr;
    }
    if (file->usecount < 0) return file.get();
  }
  return nullptr;
}

// An unused record; when there is none, vclose() may close idle pairs to make one. Null with 104 or
// 116. To be called with iserrno 0.
OpenPair* free_file_record() {
  OpenPair* file = unused_file_record();
  if (file == nullptr && iserrno == 0) {
    vclose();
    file = unused_file_record();
    if (file == nullptr) failed_unless_set(kTooManyFiles);
  }
  return file;
}

void close_data(OpenPair& file) {
  bfclosing(file);
  file.data.map.forget();
  if (file.data.fd >= 0) common::close_file(file.data.fd);
  file.data.fd = -1;
}

void close_file_record(OpenPair& file) {
  bfignor(file);
  close_data(file);
  close_trail(file);
  if (file.index.fd >= 0) common::close_file(file.index.fd);
  note_closed(file.index.device, file.index.inode);
  file = OpenPair{};
  --isopenfds;
}

// One open less uses the pair.
void freefile(OpenPair& file) {
  if (--file.usecount > 0) return;
  const bool stays = isopenfds < ismaxfds && !file.takes_no_open;
  if (!stays) close_file_record(file);
}

// Closes the idle pairs that were opened by this name and whose index file has lost it: on disk the
// name leads to the file `identity`, or to none (null). A pair in use goes on to serve its opens.
void retire_replaced(std::string_view name, const struct stat* identity) {
  for (const auto& file : files) {
    if (!is_open(file) || file->name != name) continue;
    if (identity != nullptr && file->index.device == identity->st_dev &&
        file->index.inode == identity->st_ino) {
      continue;
    }
    if (file->usecount == 0) close_file_record(*file);
  }
}

void take_over(PairFile& file, Opened& opened, const struct stat& status) {
  file.fd = opened.fd.release();
  file.mode = opened.access;
  file.device = status.st_dev;
  file.inode = status.st_ino;
}

// Opens the files of a pair for a free record, which then has them and nothing else: false with
// iserrno, and the record as it was.
bool open_files(OpenPair& file, std::string_view name, int mode, IndexAccess index_access) {
  const bool reads = index_access == IndexAccess::kToRead;
  const auto open = [reads](const std::string& path, FileKind kind, bool reading_is_enough) {
    return reads ? Opened{open_of_pair(path, O_RDONLY, kind), O_RDONLY}
                 : open_to_use(path, kind, reading_is_enough);
  };
  Opened index = open(mkidxname(name), FileKind::kIndex, index_access == IndexAccess::kOrToRead);
  if (!index.fd) return false;
  Opened data = open(mkdatname(name), FileKind::kData, mode == 0);
  if (!data.fd) return false;
  // The name may have come to lead to another file since it was looked up.
  struct stat index_status {};
  struct stat data_status {};
  if (common::system_calls().fstat(index.fd.get(), &index_status) != 0 ||
      common::system_calls().fstat(data.fd.get(), &data_status) != 0) {
    failed_system(errno);
    return false;
  }
  file = OpenPair{};
  take_over(file.index, index, index_status);
  take_over(file.data, data, data_status);
  return true;
}

// Which file has the name of an index: false with iserrno when none can be found. Also closes idle
// pairs that had the name before (retire_replaced).
bool look_up(std::string_view name, struct stat& status) {
  if (common::system_calls().stat(mkidxname(name).c_str(), &status) != 0) {
    const int reason = errno;
    retire_replaced(name, nullptr);
    failed_system(reason);
    return false;
  }
  retire_replaced(name, &status);
  return true;
}

// One open more uses the pair: null with EACCES when `mode` is to write what can only be read.
OpenPair* share(OpenPair& file, int mode) {
  if (file.data.mode == O_RDONLY && mode != 0) {
    failed_system(EACCES, Operation::kOpen, FileKind::kData);
    return nullptr;
  }
  ++file.usecount;
  return &file;
}

// What can be closed, each the pair whose last use is longest ago.
struct Victims {
  int open = 0;              // how many pairs are open
  OpenPair* idle = nullptr;  // to be closed as a whole
  OpenPair* used = nullptr;  // ... or its data file and audit trail only
};

void choose(OpenPair*& best, OpenPair& file) {
  if (best == nullptr || file.lastuse < best->lastuse) best = &file;
}

// A pair in use keeps its data file where this could not be opened again, because its name does
// not lead to it any more (takes_no_open), and where changes wait that could not be written (lost).
Victims look_for_victims() {
  Victims found;
  for (const auto& file : files) {
    if (!is_open(file)) continue;
    ++found.open;
    if (file->usecount == 0) {
      choose(found.idle, *file);
    } else if (file->data.fd >= 0 && !file->takes_no_open && file->unwritten.lost.error == 0) {
      choose(found.used, *file);
    }
  }
  return found;
}

}  // namespace

std::string mkidxname(std::string_view base) { return std::string(base) + ".idx"; }
std::string mkdatname(std::string_view base) { return std::string(base) + ".dat"; }

int ckfilname(const char* base) {
  const std::string_view name = base == nullptr ? std::string_view{} : base;
  const bool named = !name.empty() && name.back() != '/';
  return named && name.size() <= kMaxBaseName ? 0 : failed(kBadName);
}

Open* allocopen() {
  for (auto& open : opens) {
    if (!open) {
      open.reset(new (std::nothrow) Open);
      if (open) ++opens_made;
    }
    if (!open) {
      failed(kNoMemory);
      return nullptr;
    }
    if (open->state == OpenState::kFree) {
      *open = Open{};
      open->state = OpenState::kInUse;
      open->process = static_cast<std::uint16_t>(::getpid());
      open->user = static_cast<std::uint16_t>(::getuid());
      return open.get();
    }
  }
  failed(kTooManyFiles);
  return nullptr;
}

Open* open_of(int isfd) {
  if (isfd < 0 || isfd >= nopens) return nullptr;
  Open* open = opens[static_cast<std::size_t>(isfd)].get();
  return open != nullptr && open->state == OpenState::kInUse ? open : nullptr;
}

int first_unused_handle() { return opens_made; }

int isfd_of(const Open& open) {
  for (std::size_t i = 0; i < opens.size(); ++i) {
    if (opens[i].get() == &open) return static_cast<int>(i);
  }
  return -1;
}

void freeopen(Open& open) {
  if (open.file != nullptr) freefile(*open.file);
  open = Open{};
}

void forget_opens() {
  for (const auto& file : files) {
    if (!is_open(file)) continue;
    file->call.spilled = false;  // or bfdiscard() would refuse
    bfdiscard(*file);
    // Another copy of the library may have locks of this process on it by now, which closing the
    // descriptor would take away: it is left open.
    if (another_copy_has(file->index.device, file->index.inode)) file->index.fd = -1;
    close_file_record(*file);
  }
  bfease(true);
  for (const auto& open : opens) {
    if (!open || open->state == OpenState::kFree) continue;
    *open = Open{};
    open->state = OpenState::kInherited;
  }
  openp = nullptr;
  filep = nullptr;
  dictp = nullptr;
}

void forget_inherited(int isfd) {
  if (isfd < 0 || isfd >= nopens) return;
  Open* const open = opens[static_cast<std::size_t>(isfd)].get();
  if (open != nullptr && open->state == OpenState::kInherited) open->state = OpenState::kFree;
}

OpenPair* allocfile(std::string_view name, int mode, IndexAccess index_access) {
  struct stat status {};
  if (!look_up(name, status)) return nullptr;
  if (OpenPair* shared = find_file(status.st_dev, status.st_ino)) return share(*shared, mode);
  if (another_copy_has(status.st_dev, status.st_ino)) {
    failed(kFileInUse);
    return nullptr;
  }
  // A place first: to have one, pairs without a user may have to be closed, and descriptors with
  // them that the files need.
  OpenPair* const file = free_file_record();
  if (file == nullptr || !open_files(*file, name, mode, index_access)) return nullptr;
  name_file(*file, name);
  file->cached.generation = file->cached.data_generation = bfgeneration();
  file->usecount = 1;
  ++isopenfds;
  note_open(file->index.device, file->index.inode);
  return file;
}

void name_file(OpenPair& file, std::string_view name) {
  std::array<char, PATH_MAX> folder{};
  file.name = name;
  file.folder.clear();
  const bool relative = !name.starts_with('/');
  if (!relative || ::getcwd(folder.data(), folder.size()) == nullptr) return;
  // Of a folder out of reach the system gives a text that is no path.
  if (folder.front() == '/') file.folder = std::string(folder.data()) + '/';
}

int reopen_data(OpenPair& file) {
  const std::string path = mkdatname(file.folder + file.name);
  common::FileHold fd = open_of_pair(path, file.data.mode, FileKind::kData);
  if (!fd) return -1;
  struct stat status {};
  if (common::system_calls().fstat(fd.get(), &status) != 0) return failed_system(errno);
  // Another file may have the name by now.
  if (status.st_dev != file.data.device || status.st_ino != file.data.inode) {
    return failed_system(ENOENT, Operation::kOpen, FileKind::kData);
  }
  file.data.fd = fd.release();
  return 0;
}

void vclose() {
  Victims found = look_for_victims();
  while ((found.idle != nullptr || found.used != nullptr) && found.open >= ismaxfds) {
    if (found.idle != nullptr) {
      close_file_record(*found.idle);
    } else {
      bfflush(*found.used);
      // What an exclusive open could not write keeps its file, which is no victim any more.
      if (found.used->unwritten.lost.error == 0) {
        close_data(*found.used);
        close_trail(*found.used);
      }
    }
    found = look_for_victims();
  }
  isopenfds = found.open;
}

void close_idle_files(int most) {
  Victims found = look_for_victims();
  while (found.idle != nullptr && found.open > most) {
    close_file_record(*found.idle);
    found = look_for_victims();
  }
}

int open_trail(const std::string& path) {
  common::FileHold fd = open_with_retry(path, O_WRONLY);
  if (!fd) return failed_system(errno, Operation::kOpen, FileKind::kAudit);
  // vclose() may have made room by closing the data file of this same pair.
  if (filep->data.fd < 0 && reopen_data(*filep) != 0) return -1;
  filep->trail_fd = fd.release();
  return 0;
}

void close_trail(OpenPair& file) {
  if (file.trail_fd < 0) return;
  common::close_file(file.trail_fd);
  file.trail_fd = -1;
}

void make_current(Open& open) {
  openp = &open;
  filep = open.file;
  dictp = &open.file->cached.dictionary;
}

int mktemprec(int size) {
  const auto needed = (static_cast<std::size_t>(size) / 256 + 1) * 256;
  if (record_buffer.size() >= needed) return 0;
  try {
    record_buffer.resize(needed);
  } catch (const std::bad_alloc&) {
    return failed_system(ENOMEM);
  }
  return 0;
}

std::span<Byte> temprecord() { return record_buffer; }

}  // namespace isam
