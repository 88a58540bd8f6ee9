// newkeys: descriptions of indexes that a repair writes in place of those of the file.
//
// They are as isaddindex() takes them: flags, number of parts and parts count; key length and root
// do not. The first is the primary key; one without parts stands for the order of record numbers.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "checker/check.h"
#include "isam.h"
#include "zentra/report/status.h"

namespace zentra {

struct NewKeys {
  std::vector<keydescr> keys;
  // Not empty: there are none, for this reason, with this status.
  std::string why;
  Status status = Status::kSound;
};

// Reads a file of descriptions, one index a line (`--keys FILE`). No pair need be open. Whether
// they are legal for the pair is for the repair to say.
[[nodiscard]] NewKeys keys_of_file(const std::string& path);

// Takes the descriptions of another pair (`--like PAIR`), by its base name. No pair may be open: it
// opens that one to read only, and closes it.
[[nodiscard]] NewKeys keys_like(const std::string& pair, std::chrono::milliseconds wait);

// How many indexes the current dictionary counts; 0: no number that can be right.
[[nodiscard]] std::size_t counted_indexes();

// Makes the flags of descriptions such as the library gives the current pair. The number of the
// first that the pair cannot have; 0: all suit it.
[[nodiscard]] int make_legal(std::vector<keydescr>& keys);

struct ProposedKeys {
  std::vector<keydescr> keys;  // empty: nothing can be proposed
  std::string text;            // the same in the form of a file for `--keys`, with its comments
  int system_error = 0;        // an errno: what it proposes is not all
};

// What the trees of the current pair tell of its descriptions, which cannot be read or are gone. It
// is open to read, locked, and its dictionary is read; the checks have stopped early, with their
// maps made if check.sized. Changes nothing.
[[nodiscard]] ProposedKeys propose_keys(const checker::Check& check);

}  // namespace zentra
