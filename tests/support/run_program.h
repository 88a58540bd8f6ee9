// run_program: a real process in a folder, without input, for a minute at most.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {

struct RunResult {
  std::string out;  // and what came on standard error
  int status = -1;  // exit status, or -1
};

struct RunRequest {
  std::vector<std::string> words;  // program and arguments
  std::string folder = ".";
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
