// arguments: the words that a subcommand takes from its command line, each bound to the place where
// its value goes. The parser's own header is read by commandline.cpp alone: it takes long.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace zentra {

class Arguments {
 public:
  explicit Arguments(CLI::App& app) : app_(app) {}

  void flag(const char* name, bool& to, const char* help);
  // An option with a number from `least` to `most`, which the help calls `kind`.
  void number(const char* name, int& to, int least, int most, const char* kind, const char* help);
  // An option with one of these words.
  void choice(const char* name, std::string& to, std::vector<std::string> choices,
              const char* help);
  // An option with any text, which the help calls `kind`.
  void text(const char* name, std::string& to, const char* kind, const char* help);
  // The same, which may be given several times.
  void texts(const char* name, std::vector<std::string>& to, const char* kind, const char* help);
  // Words by their place, in the order of these calls.
  void word_of(const char* name, std::string& to, std::vector<std::string> choices,
               const char* help);
  void words(const char* name, std::vector<std::string>& to, int most, const char* help);

  // What several subcommands have.
  void json(bool& to);
  void wait(double& seconds);  // as_time() of it
  void pair(std::string& name);
  void pairs(std::vector<std::string>& names);
  // A file by its place, which the help calls `kind`.
  void file(const char* kind, std::string& name, const char* help);

 private:
  CLI::App& app_;
};

[[nodiscard]] inline std::chrono::milliseconds as_time(double seconds) {
  return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

}  // namespace zentra
