// writeorder: the order in which the changes of a call reach a pair that other processes use.
//
// Needs   the current file, with the dictionary as the call leaves it; its semaphore, held
//         exclusively
// Keeps   W1 whenever the process is killed, what the calls of other processes complete is not
//            lost: docs/architecture.md tells for each step why
//         W2 a commit that fails leaves both files as they were, as far as they can be written
// Gives   commit()
// Never   reads a page between two steps: that could write another one out of its turn
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "isam/pool/overwritten.h"

namespace isam {

class Pool;

// The steps, in their order.
enum class WriteStep : std::uint8_t {
  kRoom,             // zero bytes where records will be: a full disk is noticed here
  kNewNodes,         // they lengthen the index, and nothing refers to them yet
  kFreeLists,        // what was taken is no longer listed before it is used
  kDictionary,       // its new stamp makes others read the rest anew
  kRecordsGoing,     // of a delete: before the items that refer to them
  kNodes,            // all nodes that no other step writes
  kRecords,          // of any other call: once the items are there that refer to them
  kStorageGivenUp,   // pages with bytes of records, once no record refers to them
  kNumbersListed,    // of a delete: once no item refers to them
  kDictionaryAgain,  // with the heads of lists that step kDictionary withheld
};

class WriteOrder {
 public:
  explicit WriteOrder(Pool& pool);
  // What bfcommit() of isam/pool/buffers.h does.
  int commit(OpenPair& file);

 private:
  // A page on its way out. `order` has the step in its upper half. Its lower half has the block's
  // number with all bits turned over, which sorts the highest block of a step first: the highest of
  // the new nodes gives the file its new length at once.
  struct Outgoing {
    std::uint64_t order;
    Buffer* page;

    [[nodiscard]] WriteStep step() const { return static_cast<WriteStep>(order >> 32); }
  };

  int write_all(OpenPair& file);
  void withhold_given(const OpenPair& file);
  void gather_pages(const OpenPair& file);
  static void move_to_place(std::span<Outgoing> pages);
  static void sort_by_order(std::span<Outgoing> pages);
  [[nodiscard]] bool is_next(WriteStep step) const {
    return !rest_.empty() && rest_.front().step() == step;
  }
  int make_room(OpenPair& file);
  int lengthen_data(OpenPair& file);
  int write_pages_before(WriteStep step, OpenPair& file);
  int write_direct(OpenPair& file);
  int write_dictionary_again(OpenPair& file);
  [[nodiscard]] std::span<const Outgoing> next_run() const;
  int write_run(OpenPair& file);
  int write_over(OpenPair& file, const Place& place, const Byte* bytes);
  int write_noted(OpenPair& file, const Place& place, const Byte* bytes);
  void forget_changes(OpenPair& file);

  Pool& pool_;
  std::vector<Outgoing> pages_;
  std::span<const Outgoing> rest_;  // of pages_, to be written
  Dictionary dictionary_{};         // as step kDictionary writes it
  std::vector<Byte> run_;           // neighbouring blocks on their way out
  Overwritten overwritten_;
};

}  // namespace isam
