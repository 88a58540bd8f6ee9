#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "bench/stores/measuring.h"
#include "bench/stores/phases.h"
#include "bench/stores/processes.h"
#include "bench/stores/store.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kMinRecords = 1000;
constexpr std::uint32_t kDefaultRecords = 1'000'000;

enum class Phases { kAll, kProcesses, kBig, kCold };

Phases phases_from(std::string_view text) {
  if (text == "all") return Phases::kAll;
  if (text == "processes") return Phases::kProcesses;
  if (text == "big") return Phases::kBig;
  if (text == "cold") return Phases::kCold;
  throw std::invalid_argument("--phases: all, processes, big or cold are wanted");
}

struct Settings {
  std::uint32_t records = kDefaultRecords;
  std::string only;  // one kind; empty: all of them
  Phases phases = Phases::kAll;
  fs::path folder = fs::temp_directory_path();
};

std::uint32_t record_count(std::string_view text) {
  std::uint32_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc{} || end != text.data() + text.size() || count < kMinRecords ||
      count > kMaxRecords) {
    throw std::invalid_argument("--records: a number from " + std::to_string(kMinRecords) + " to " +
                                std::to_string(kMaxRecords) + " is wanted");
  }
  return count;
}

Settings settings_from(int argc, const char* const* argv) {
  Settings settings;
  for (int i = 1; i < argc; i += 2) {
    const std::string_view option = argv[i];
    if (i + 1 == argc) throw std::invalid_argument(std::string(option) + ": a value is wanted");
    const char* value = argv[i + 1];
    if (option == "--records") {
      settings.records = record_count(value);
    } else if (option == "--only") {
      settings.only = value;
    } else if (option == "--phases") {
      settings.phases = phases_from(value);
    } else if (option == "--folder") {
      settings.folder = value;
    } else {
      throw std::invalid_argument(std::string(option) + ": no such option");
    }
  }
  return settings;
}

std::vector<StoreKind> chosen_from(const std::vector<StoreKind>& kinds, const std::string& only) {
  if (only.empty()) return kinds;
  for (const StoreKind& kind : kinds) {
    if (kind.name == only) return {kind};
  }
  throw std::invalid_argument("--only: " + only + " is none of the stores here");
}

// A folder of its own, removed with all it holds.
class Scratch {
 public:
  explicit Scratch(const fs::path& parent) {
    std::string name = parent / "stores.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = name;
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  [[nodiscard]] fs::path inner() const { return path_ / "store"; }

 private:
  fs::path path_;
};

void run(const StoreKind& kind, const Settings& settings) {
  const Scratch scratch(settings.folder);
  const std::unique_ptr<Store> store = kind.make();
  const fs::path folder = scratch.inner();
  switch (settings.phases) {
    case Phases::kAll: {
      if (kind.is_floor) return run_floor(*store, kind.name, folder, settings.records, true);
      Model model = run_alone(*store, kind.name, folder, settings.records);
      if (kind.shared) run_together(*store, kind.name, folder, model);
      return run_many(*store, kind.name, folder, settings.records);
    }
    case Phases::kProcesses: {
      if (!kind.shared) return;
      Model model = load_unmeasured(*store, kind.name, folder, settings.records);
      return run_together(*store, kind.name, folder, model);
    }
    case Phases::kBig:
      if (kind.is_floor) {
        return run_floor(*store, kind.name, folder, settings.records, !kind.shared);
      }
      return run_big(*store, kind.name, folder, settings.records, !kind.shared);
    case Phases::kCold:
      return run_cold(*store, kind.name, folder, settings.records);
  }
}

}  // namespace

int run_stores(int argc, const char* const* argv, const std::vector<StoreKind>& kinds) {
  try {
    const Settings settings = settings_from(argc, argv);
    const std::vector<StoreKind> chosen = chosen_from(kinds, settings.only);
    print_heading();
    for (const StoreKind& kind : chosen) run(kind, settings);
  } catch (const std::invalid_argument& error) {
    std::fprintf(stderr,
                 "%s: %s\nusage: %s [--records N] [--only STORE] [--phases all|processes|big|cold] "
                 "[--folder FOLDER]\n",
                 argv[0], error.what(), argv[0]);
    return EXIT_FAILURE;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

}  // namespace bench
