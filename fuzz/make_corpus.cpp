// make_corpus: the inputs that fuzzing starts from, one file each: in the folder "pairs" small
// pairs of every node size, fixed and variable in length, sound and with one thing wrong; in "logs"
// logs to be replayed; in "listings" logs, error logs and audit trails.
//
//   make_corpus FOLDER
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iterator>
#include <string>

#include "fuzz/log_corpus.h"
#include "tests/support/layout.h"
#include "tests/support/pair_builder.h"
#include "tests/support/pair_walk.h"

namespace {

namespace fs = std::filesystem;
using testing_support::BuiltPair;
using testing_support::Image;
using testing_support::put2;
using testing_support::put4;
using testing_support::read_file;

constexpr int kRecords = 24;
constexpr std::ptrdiff_t kSlotCountOffset = 21;  // in a storage page
constexpr std::array kNodeSizes = {128, 256, 512, 1024};

struct Files {
  const BuiltPair& pair;
  Image index;
  Image data;

  [[nodiscard]] unsigned char* node(std::int32_t number) {
    return index.data() + (number - 1) * static_cast<std::ptrdiff_t>(pair.spec.node_size);
  }
  [[nodiscard]] std::int32_t root() const { return pair.indexes.front().root; }
  [[nodiscard]] std::int32_t leaf() const { return pair.indexes.back().leaves.front(); }
};

// What may be wrong, each a starting point for the fuzzer to go on from.
using Damage = void (*)(Files& files);
constexpr Damage kDamages[] = {
    [](Files&) {},
    [](Files& files) { put2(files.node(files.root()), files.pair.spec.node_size); },
    [](Files& files) { std::fill_n(files.node(files.leaf()), files.pair.spec.node_size, 0); },
    [](Files& files) {
      std::copy_n(files.node(files.leaf()), files.pair.spec.node_size, files.node(files.root()));
    },
    [](Files& files) {
      const std::int32_t key_node = files.pair.key_nodes.back();
      put4(files.node(key_node) + 2, key_node);
    },
    [](Files& files) {
      const std::int32_t list_node = files.pair.free_node_list.back();
      put4(files.node(list_node) + 2, list_node);
    },
    [](Files& files) {
      put4(files.node(1) + testing_support::dict::kFreeData, files.pair.last_node + 1);
    },
    [](Files& files) { put4(files.node(1) + testing_support::dict::kNextNode, 0x7FFFFFFF); },
    [](Files& files) { put2(files.node(1) + testing_support::dict::kRecordSize, 1); },
    [](Files& files) { files.data[files.data.size() / 2] ^= 0x0A; },
    [](Files& files) { files.index.resize(files.index.size() - 100); },
    [](Files& files) { files.data.resize(files.data.size() / 3); },
    [](Files& files) {
      for (const std::int32_t page : files.pair.small_pages) {
        files.node(page)[kSlotCountOffset] = 255;
      }
    },
};

testing_support::PairSpec shape(int node_size, bool varying) {
  const auto seed = static_cast<std::uint32_t>(node_size + varying);
  testing_support::PairSpec spec =
      varying ? testing_support::varying_spec(node_size, kRecords, 3 * node_size, seed)
              : testing_support::mixed_spec(node_size, kRecords, seed);
  spec.deleted = {3, kRecords / 2};
  spec.free_nodes = 2;
  return spec;
}

void append(Image& to, const Image& more) { to.insert(to.end(), more.begin(), more.end()); }

void write_seed(const fs::path& path, const Files& files, unsigned char options) {
  Image seed(4);
  put4(seed.data(), static_cast<std::int64_t>(files.index.size()));
  append(seed, files.index);
  append(seed, files.data);
  seed.push_back(options);
  testing_support::write_file(path, seed);
}

// The damages are dealt out over the shapes, four to each.
void write_corpus(const fs::path& folder) {
  constexpr std::size_t kSeedsPerShape = 4;
  const std::string base = folder / "pair";
  std::size_t damage = 0;
  for (const int node_size : kNodeSizes) {
    for (const bool varying : {false, true}) {
      const BuiltPair pair = testing_support::build_pair(shape(node_size, varying), base);
      for (std::size_t i = 0; i < kSeedsPerShape; ++i) {
        Files files{pair, read_file(base + ".idx"), read_file(base + ".dat")};
        kDamages[damage % std::size(kDamages)](files);
        const auto options = static_cast<unsigned char>((damage + damage / 8) % 8);
        const std::string name = std::to_string(node_size) + (varying ? "-varying-" : "-fixed-") +
                                 std::to_string(damage++);
        write_seed(folder / name, files, options);
      }
    }
  }
  fs::remove(base + ".idx");
  fs::remove(base + ".dat");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: make_corpus FOLDER\n");
    return EXIT_FAILURE;
  }
  try {
    const fs::path folder = fs::absolute(argv[1]);
    fs::create_directories(folder / "pairs");
    write_corpus(folder / "pairs");
    fuzz::write_log_corpus(folder / "logs", folder / "listings");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
