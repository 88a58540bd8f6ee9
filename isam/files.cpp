#include "isam/files.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "common/holders.h"
#include "common/io.h"
#include "isam/buffers.h"
#include "isam/errors.h"
#include "isam/locks.h"

namespace isam {

OpenRecord* openp = nullptr;
FileRecord* filep = nullptr;
Dictionary* dictp = nullptr;

namespace {

// Records are made on first use and kept for the life of the process.
std::array<std::unique_ptr<OpenRecord>, nopens> opens;
std::array<std::unique_ptr<FileRecord>, nfiles> files;
std::vector<Byte> record_buffer;

FileRecord* find_file(dev_t device, ino_t inode) {
  for (const auto& file : files) {
    if (file && file->usecount > 0 && file->device == device && file->inode == inode) {
      return file.get();
    }
  }
  return nullptr;
}

FileRecord* free_file_record() {
  for (auto& file : files) {
    if (!file) file.reset(new (std::nothrow) FileRecord);
    if (!file) {
      failed(kNoMemory);
      return nullptr;
    }
    if (file->usecount < 0) return file.get();
  }
  failed(kTooManyFiles);
  return nullptr;
}

void freefile(FileRecord& file) {
  if (--file.usecount > 0) return;
  bfignor(file);
  common::close_file(file.idxfd);
  common::close_file(file.datfd);
  file = FileRecord{};
}

common::FileHold open_of_pair(const std::string& path, int flags, FileKind kind) {
  common::FileHold fd{common::open_file(path.c_str(), flags)};
  if (!fd) failed_system(errno, Operation::kOpen, kind);
  return fd;
}

common::FileHold open_data_file(std::string_view name, int mode) {
  const std::string path = mkdatname(name);
  common::FileHold fd = open_of_pair(path, O_RDWR, FileKind::kData);
  if (!fd && iserrno == EACCES && mode == 0) {
    clear_errors();
    fd = open_of_pair(path, O_RDONLY, FileKind::kData);
  }
  return fd;
}

void set_status_characters() {
  const auto set = [](const char* four) {
    isstat1 = four[0];
    isstat2 = four[1];
    isstat3 = four[2];
    isstat4 = four[3];
  };
  switch (iserrno) {
    case 0:
      return set("0000");
    case kDuplicate:
      return set("2222");
    case kEndOfFile:
      return set("1010");
    case kNoRecord:
      return set("2323");
    case kNoCurrent:
      return set("2143");
    default:
      return set("9090");
  }
}

bool other_lock_method_accepted() { return std::getenv("RESETLOCK") != nullptr; }

}  // namespace

std::string mkidxname(std::string_view base) { return std::string(base) + ".idx"; }
std::string mkdatname(std::string_view base) { return std::string(base) + ".dat"; }

OpenRecord* allocopen() {
  for (auto& open : opens) {
    if (!open) open.reset(new (std::nothrow) OpenRecord);
    if (!open) {
      failed(kNoMemory);
      return nullptr;
    }
    if ((open->flags & kOpenInUse) == 0) {
      *open = OpenRecord{};
      open->flags = kOpenInUse;
      return open.get();
    }
  }
  failed(kTooManyFiles);
  return nullptr;
}

void freeopen(OpenRecord& open) {
  if (open.file != nullptr) freefile(*open.file);
  open = OpenRecord{};
}

FileRecord* allocfile(std::string_view name, int mode) {
  const std::string path = mkidxname(name);
  struct stat status {};
  if (common::system_calls().stat(path.c_str(), &status) != 0) {
    failed_system(errno);
    return nullptr;
  }
  if (FileRecord* shared = find_file(status.st_dev, status.st_ino)) {
    ++shared->usecount;
    return shared;
  }
  FileRecord* file = free_file_record();
  if (file == nullptr) return nullptr;
  common::FileHold index = open_of_pair(path, O_RDWR, FileKind::kIndex);
  if (!index) return nullptr;
  common::FileHold data = open_data_file(name, mode);
  if (!data) return nullptr;
  *file = FileRecord{};
  file->name = name;
  file->device = status.st_dev;
  file->inode = status.st_ino;
  file->idxfd = index.release();
  file->datfd = data.release();
  file->usecount = 1;
  return file;
}

void make_current(OpenRecord& open) {
  openp = &open;
  filep = open.file;
  dictp = &open.file->dictionary;
}

int dictread() {
  const ssize_t got = common::read_at(filep->idxfd, dictp->raw, 0);
  if (got < 0) return failed_system(errno, Operation::kRead, FileKind::kIndex);
  if (got < kDictionarySize) return failed(kCorrupted);
  const int stored_size = dictp->d_idxsize();
  const int method = dictp->d_lockmethod();
  if (dictp->d_magic() != kDictionaryMagic || !dictp->fixed_bytes_match() ||
      stored_size < kMinStoredNodeSize || stored_size > kMaxStoredNodeSize) {
    const bool later_format = stored_size > kMaxStoredNodeSize && stored_size % 2 == 0;
    return failed(later_format ? kFormatChange : kCorrupted);
  }
  if (method == 0 || method == kLockMethod || other_lock_method_accepted()) return 0;
  return failed(method < kLockMethod ? kFormatChange : kCorrupted);
}

int dictwrite() {
  if (common::write_at(filep->idxfd, dictp->raw, 0) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kIndex);
  }
  filep->flags = static_cast<std::uint16_t>(filep->flags & ~kDictionaryChanged);
  return 0;
}

int isexit() {
  if ((filep->flags & kPageChanged) != 0) {
    filep->flags = static_cast<std::uint16_t>(filep->flags & ~kPageChanged);
    openp->stamp = ++filep->stamp;
    dictp->set_d_modcount(filep->stamp);
    dictmodify();
    if ((openp->mode & ISEXCLLOCK) == 0) bfflush(*filep);
  }
  if ((filep->flags & kDictionaryChanged) != 0) dictwrite();
  set_status_characters();
  if ((openp->flags & kHoldsSemaphore) != 0) lksemaphore(Semaphore::kRelease);
  return iserrno == 0 ? 0 : -1;
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

extern "C" int iscleanup(void) {
  for (const auto& open : isam::opens) {
    if (!open || (open->flags & isam::kOpenInUse) == 0) continue;
    if (open->file != nullptr) isam::bfflush(*open->file);
    isam::freeopen(*open);
  }
  return 0;
}
