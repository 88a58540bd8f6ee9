// zentra: tools for Zentra indexed files, one subcommand each.
#include <csignal>
#include <span>

#include "common/nulldevice.h"
#include "zentra/command/commandline.h"

int main(int argc, char** argv) {
  common::fill_standard_descriptors();
  // A write past the limit of a file's size fails, as on a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  const std::span<char*> words(argv, static_cast<std::size_t>(argc));
  return zentra::run({words.begin() + (argc > 0 ? 1 : 0), words.end()});
}
