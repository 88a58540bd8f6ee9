// damaged_pairs FOLDER FIRST COUNT: writes FOLDER/N.idx and FOLDER/N.dat for each number N.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tests/support/damaged_pair.h"

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: damaged_pairs FOLDER FIRST COUNT\n");
    return EXIT_FAILURE;
  }
  try {
    const int first = std::stoi(argv[2]);
    for (int number = first; number < first + std::stoi(argv[3]); ++number) {
      testing_support::write_damaged_pair(number,
                                          std::string(argv[1]) + "/" + std::to_string(number));
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "damaged_pairs: %s\n", error.what());
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
