// zentra: tools for Zentra indexed files, one subcommand each.
#include <span>

#include "common/nulldevice.h"
#include "zentra/commandline.h"

int main(int argc, char** argv) {
  common::fill_standard_descriptors();
  const std::span<char*> words(argv, static_cast<std::size_t>(argc));
  return zentra::run({words.begin() + (argc > 0 ? 1 : 0), words.end()});
}
