// replayfiles: the files that a recovery works on, each open once however many of the writers'
// opens stand for it.
//
// The records of a transaction are held, and applied later than they are read. So the names of
// files are followed twice: named(), built() and renamed() tell which file a record means when it
// is read; `name`, `isfd` and `gone` of a ReplayFile tell how the file is called in its folder, and
// whether it is open or erased, after what has been applied so far.
//
// Keeps   F1 a file keeps its identity when it is renamed; one that is built is another one
//         F2 short of opens or descriptors, a file that the transaction being applied does not use
//            is closed; it is opened again when it is needed
#pragma once

#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "txlog/heldrecords.h"

namespace isam::txlog {

struct ReplayFile {
  std::uint32_t id = 0;
  std::string name;     // in its folder, as far as the log was applied
  int isfd = -1;        // the recovery's own open; -1: closed for now
  int count = 0;        // writers' opens that stand for it
  bool in_use = false;  // by the transaction being applied
  bool varlen = false;
  bool gone = false;            // erased
  std::int64_t renumbered = 0;  // offset of the last clustering or erasing, which ends all numbers
  HeldList linked;              // held images of it that a rollback of their transaction undoes
  HeldList unlinked;            // ... and what else is held about it
};

class ReplayFiles {
 public:
  ReplayFiles() = default;
  ReplayFiles(const ReplayFiles&) = delete;
  ReplayFiles& operator=(const ReplayFiles&) = delete;

  // ---- As the log is read.
  // The file that has a name, known from now on.
  [[nodiscard]] ReplayFile& named(std::string_view name);
  // A new file gets a name.
  [[nodiscard]] ReplayFile& built(std::string_view name);
  // From now on this name leads to the file. So does its old name, until another file gets that.
  void renamed(ReplayFile& file, std::string_view name);

  // ---- As it is applied: 0, or -1 with iserrno.
  // One more of the writers' opens stands for a file. If the file is not open it is opened by this
  // name, even one that was erased: the log says that it is there again.
  int addopfile(ReplayFile& file, std::string_view name, bool varlen);
  // The open to work on a file with, or -1. The file is in use until release_all().
  [[nodiscard]] int getrisfd(ReplayFile& file);
  // One of the writers' opens is closed; the last one closes the file.
  int lgclfile(ReplayFile& file);
  // The open of a file was replaced by another one, or lost (-1).
  void txoupdate(ReplayFile& file, int isfd);
  // A file was erased.
  void forget(ReplayFile& file);
  // The transaction has been applied.
  void release_all();
  // Closes what is open: 0, or -1 with the first failure.
  int close_all();

 private:
  ReplayFile& make(std::string_view name);
  // Opens a file unless it is open: 0, or -1 with iserrno.
  int txoopen(ReplayFile& file);
  // Closes one open file that the transaction being applied does not use: whether there was one and
  // it could be closed.
  bool txoclose();
  int close_file(ReplayFile& file);

  std::deque<ReplayFile> files_;
  std::map<std::string, ReplayFile*, std::less<>> names_;
  std::vector<ReplayFile*> open_;
  std::vector<ReplayFile*> used_;
};

}  // namespace isam::txlog
