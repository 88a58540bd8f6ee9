// run_program: a real process with its own folder, input, environment and time limit.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

struct RunResult {
  std::string out;
  std::string err;
  int status = -1;  // exit status, or -1
  int signal = 0;   // that ended it, or 0
  bool timed_out = false;
};

struct RunRequest {
  std::vector<std::string> words;  // program and arguments
  std::string folder = ".";
  std::string input = {};
  std::vector<std::string> environment = {};  // "NAME=value", added to this process's
  int seconds = 60;
  std::function<void()> before = {};  // done in the new process, last of all
};

RunResult run_program(const RunRequest& request);

// A folder of its own, removed at the end.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

}  // namespace testing_support
