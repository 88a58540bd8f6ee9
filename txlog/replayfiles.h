// replayfiles: the files that a recovery works on, each open once however many of the writers'
// opens stand for it.
//
// Keeps   P1 a file is found by name, and follows a rename
//         P2 short of opens or descriptors, a file that the transaction being applied does not use
//            is closed; it is opened again when it is needed
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace isam::txlog {

struct ReplayFile {
  std::string name;
  int isfd = -1;        // the recovery's own open; -1: closed for now
  int count = 0;        // writers' opens that stand for it
  bool in_use = false;  // by the transaction being applied
  bool varlen = false;
  bool gone = false;  // erased, or no writer has it open any more
};
using ReplayFileRef = std::shared_ptr<ReplayFile>;

class ReplayFiles {
 public:
  ReplayFiles() = default;
  ReplayFiles(const ReplayFiles&) = delete;
  ReplayFiles& operator=(const ReplayFiles&) = delete;

  // The file for one more of the writers' opens; null with iserrno when it cannot be opened.
  [[nodiscard]] ReplayFileRef addopfile(std::string_view name, bool varlen);
  // The open to work on a file with: -1 with iserrno.
  [[nodiscard]] int getrisfd(const ReplayFileRef& file);
  // One of the writers' opens is closed; the last one closes the file. 0, or -1 with iserrno.
  int lgclfile(const ReplayFileRef& file);
  // The open of a file was replaced by another one.
  static void txoupdate(ReplayFile& file, int isfd) { file.isfd = isfd; }
  void forget(std::string_view name);
  void rename(std::string_view from, std::string_view to);
  // The transaction has been applied.
  void release_all();
  // Closes what is open: 0, or -1 with the first failure.
  int close_all();

 private:
  // Opens a file unless it is: 0, or -1.
  int txoopen(ReplayFile& file);
  // Closes an idle file: whether there was one.
  bool txoclose();

  std::map<std::string, ReplayFileRef, std::less<>> files_;
  std::vector<ReplayFileRef> used_;
};

}  // namespace isam::txlog
