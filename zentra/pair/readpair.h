// readpair: a pair opened to read, held still while it is looked at.
//
//   ReadPair pair;
//   if (!pair.open(name, wait)) return pair.status();    // pair.why() says it in words
//   ...                                                  // the library's current file is the pair
//
// Needs   of several at a time each made the library's current one while it is worked on
// Keeps   not one byte of the pair is written: both files are opened to read only
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "checker/entry.h"
#include "isam/base/current.h"
#include "zentra/report/report.h"
#include "zentra/report/status.h"

namespace zentra {

class ReadPair {
 public:
  ReadPair() = default;
  ReadPair(const ReadPair&) = delete;
  ReadPair& operator=(const ReadPair&) = delete;
  ~ReadPair() { close(); }

  // Opens the pair, reads its files into the page cache if all of it is to be looked at, and takes
  // the readers' lock, waiting for it at most `wait`. `name`: without suffix. False: status() and
  // why() tell.
  enum class Look { kAll, kLittle };
  [[nodiscard]] bool open(const std::string& name, std::chrono::milliseconds wait,
                          Look look = Look::kAll);
  // Reads the dictionary: false where there is none.
  [[nodiscard]] bool load();
  // Takes the lengths of nodes and records from the dictionary, for who looks at single ones
  // without a check: false where it tells none.
  [[nodiscard]] bool take_geometry();
  // Makes it the library's current file again, where another one has been opened meanwhile.
  void make_current();
  // Releases the lock, once it is not needed any more; the files stay open.
  void let_go();
  void close();

  [[nodiscard]] Status status() const { return status_; }
  [[nodiscard]] const std::string& why() const { return why_; }
  // The process that has the lock which is in the way; 0: not known.
  [[nodiscard]] pid_t holder() const { return holder_; }
  // How long the lock has been held, or was.
  [[nodiscard]] double seconds_held() const;

 private:
  [[nodiscard]] bool is_file(const std::string& path);
  [[nodiscard]] bool open_files(const std::string& name);
  [[nodiscard]] bool lock(std::chrono::milliseconds wait);
  bool refuse(Status status, std::string why);
  bool refuse_by_code(const char* what);

  isam::Open* open_ = nullptr;
  Status status_ = Status::kSound;
  std::string why_;
  pid_t holder_ = 0;
  std::chrono::steady_clock::time_point locked_{};
  std::optional<std::chrono::steady_clock::time_point> released_{};
};

// Tells that there is no pair, if that is why it was refused; else what is known of the holder.
Fields tell_refusal(const ReadPair& pair, Report& report);

// "process 123 (name)", or "unknown" for 0.
[[nodiscard]] std::string process_text(pid_t process);

using checker::error_text;

}  // namespace zentra
