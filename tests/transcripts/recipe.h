// recipe: how a pair is made and damaged, and how kestro is run on it, in a few words a line.
//
// The first line says what is wrong. tests/pairs/README.md tells the words of the others.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace testing_support {

struct FileLock {
  std::string file;
  bool for_writing;
  std::int64_t start;
  std::int64_t length;
};

// One run of the program.
struct Run {
  std::vector<std::string> words;  // its arguments
  std::string answers;
  std::vector<std::string> environment;
  std::vector<std::string> failures;  // of system calls, as failing_calls takes them
  std::vector<FileLock> locks;        // that another process holds
  std::vector<int> closed;            // descriptors
  int user = 0;
  std::int64_t file_limit = 0;  // greatest size of a file; 0: none
  bool terminal = false;        // standard error is one
};

class Recipe {
 public:
  explicit Recipe(const std::string& path);

  [[nodiscard]] const std::string& description() const { return description_; }
  [[nodiscard]] const Run& first() const { return first_; }
  [[nodiscard]] const Run& second() const { return second_; }
  // Whether files are to belong to others, or others to run the program.
  [[nodiscard]] bool needs_root() const;
  // Makes the files in a folder: the names of the pairs.
  [[nodiscard]] std::vector<std::string> make(const std::string& folder) const;

 private:
  std::string description_;
  std::vector<std::string> lines_;  // of making
  Run first_;
  Run second_;
};

}  // namespace testing_support
