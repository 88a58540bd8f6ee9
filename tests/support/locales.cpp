#include "tests/support/locales.h"

#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>

#include "tests/support/run_program.h"

// The C library does not give back what newlocale() makes of LOCPATH; nothing else is to leak.
extern "C" const char* __lsan_default_suppressions() { return "leak:argz_add_sep"; }

namespace testing_support {
namespace fs = std::filesystem;

bool make_locale(const std::string& language, const std::string& code_set) {
  const fs::path folder = KESTRO_TEST_LOCALES;
  std::string name = language + ".";
  for (const char c : code_set) {
    if (c != '-') name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  // Behind it the system's own folder, for C.UTF-8.
  ::setenv("LOCPATH", (folder.string() + ":/usr/lib/locale").c_str(), 1);
  ::setenv("LSAN_OPTIONS", "detect_leaks=0", 1);  // of the programs that this one starts
  std::error_code error;
  if (fs::exists(folder / name, error)) return true;
  fs::create_directories(folder, error);
  const std::string fresh = name + "." + std::to_string(::getpid());
  run_program({.words = {"/usr/bin/env", "localedef", "--no-archive", "-i", language, "-f",
                         code_set, "./" + fresh},
               .folder = folder});
  if (!fs::exists(folder / fresh / "LC_COLLATE", error)) return false;
  fs::rename(folder / fresh, folder / name, error);
  if (error) fs::remove_all(folder / fresh, error);  // another test was quicker
  return fs::exists(folder / name, error);
}

}  // namespace testing_support
