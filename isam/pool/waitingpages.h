// waitingpages: pages of the system in which an exclusive open has changed records. They wait in
// memory, so that a page with many changed records is written once.
//
// Serves one data file at a time. It has the whole file's address space, so that a page is found by
// its number. What pages have waited in it remains its memory until give_back().
//
// Needs   the mark of unwritten changes (isam/pool/mark) is set before take()
// Keeps   A1 a page that waits has the file's bytes with all changes: it goes before the file
//         A2 what is written to the file past it goes into it too (written())
//         A3 pages wait for a second at most while calls go on, of whatever pair, and give way when
//            the system has little memory: a process that is killed has lost no more of its records
//         A4 a record that reaches beyond its page is written by itself before its pages are: a
//            process that is killed while it writes them leaves no record that is new in part
// Never   lengthens the file, which a full disk would be met by too late; takes what lies beyond
//         kMostBytes, or more than an eighth of the system's memory; takes anything for a while
//         after few changes have met in a page twice in a row
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/arena.h"
#include "isam/base/current.h"

namespace isam {

class WaitingPages {
 public:
  static constexpr std::size_t kPage = 4096;                         // of the system
  static constexpr std::size_t kMostBytes = std::size_t{256} << 20;  // of the file, from its start

  [[nodiscard]] bool has(const OpenPair& file) const { return file_ == &file && count_ > 0; }
  // Whether any of these bytes of the file wait.
  [[nodiscard]] bool has(const OpenPair& file, std::int64_t offset, std::size_t size) const;
  // Whether it has taken bytes of this file, and goes on to.
  [[nodiscard]] bool serves(const OpenPair& file) const { return file_ == &file && paused_ == 0; }
  // Takes bytes that are to be written at `offset` of the file: false, with nothing taken, when
  // they cannot wait.
  [[nodiscard]] bool take(OpenPair& file, std::int64_t offset, ConstBytes bytes);
  // Bytes were read from the file: what waits of them is put in their place.
  void put_into(const OpenPair& file, std::int64_t offset, Bytes bytes) const;
  // Bytes were written to the file.
  void written(const OpenPair& file, std::int64_t offset, ConstBytes bytes);

  // The pair whose pages wait; null for none.
  [[nodiscard]] OpenPair* waiting_file() const { return count_ > 0 ? file_ : nullptr; }
  // Hands each slot of so many bytes that reaches over the end of a page to `use`, if all of it
  // waits: no other one was changed here.
  template <typename Use>
  void each_across(std::size_t slot, Use use) const;
  // Hands the pages that wait to `write`, in the order of the file, up to kLongestRun of them that
  // lie side by side in one piece; those for which it answers 0 wait no more.
  template <typename Write>
  void write_all(Write write);
  // Whether the first of the pages has waited long enough.
  [[nodiscard]] bool is_due() const;
  // Nothing of this file waits any more.
  void drop(const OpenPair& file);
  // Gives memory back, if nothing waits.
  void give_back();

 private:
  static constexpr std::size_t kPages = kMostBytes / kPage;
  static constexpr std::size_t kWord = 64;
  // The system would keep larger pieces of a file in large pages, in which small writes are slow.
  static constexpr std::size_t kLongestRun = 4;

  [[nodiscard]] bool waits(std::size_t page) const {
    return (waiting_[page / kWord] >> page % kWord & 1) != 0;
  }
  [[nodiscard]] bool serve(OpenPair& file);
  [[nodiscard]] bool fetch(OpenPair& file, std::size_t first, std::size_t last);
  void note_end(std::size_t pages_written);
  template <typename Use>
  void each_waiting(std::int64_t offset, std::size_t size, Use use) const;

  OpenPair* file_ = nullptr;
  std::size_t count_ = 0;    // pages that wait
  std::size_t changes_ = 0;  // in these
  std::size_t paused_ = 0;   // so many more changes are not taken
  bool had_few_ = false;     // few changes had met in each page that was written last
  std::int64_t since_ = 0;   // milliseconds: when the first of them began to wait
  common::Arena<Byte> bytes_;
  std::array<std::uint64_t, kPages / kWord> waiting_{};  // a bit for each page
};

template <typename Use>
void WaitingPages::each_across(std::size_t slot, Use use) const {
  std::size_t end = 0;  // of the last slot looked at
  for (std::size_t page = 1; page < kPages; ++page) {
    if (page % kWord == 0 && waiting_[page / kWord] == 0) {
      page += kWord - 1;
      continue;
    }
    const std::size_t start = page * kPage / slot * slot;
    if (!waits(page) || start < end || start == page * kPage) continue;
    end = start + slot;
    bool all_wait = end <= kMostBytes;
    for (std::size_t at = start / kPage; all_wait && at <= (end - 1) / kPage; ++at) {
      all_wait = waits(at);
    }
    if (all_wait) use(static_cast<std::int64_t>(start), ConstBytes{&bytes_[start], slot});
  }
}

template <typename Write>
void WaitingPages::write_all(Write write) {
  std::size_t pages_written = 0;
  for (std::size_t page = 0; page < kPages && count_ > 0;) {
    if (page % kWord == 0 && waiting_[page / kWord] == 0) {
      page += kWord;
      continue;
    }
    std::size_t end = page;
    while (end < kPages && end - page < kLongestRun && waits(end)) ++end;
    if (end == page) {
      ++page;
      continue;
    }
    const ConstBytes run{&bytes_[page * kPage], (end - page) * kPage};
    const bool is_written = write(static_cast<std::int64_t>(page * kPage), run) == 0;
    pages_written += end - page;
    for (; page < end; ++page) {
      if (!is_written) continue;
      waiting_[page / kWord] &= ~(std::uint64_t{1} << page % kWord);
      --count_;
    }
  }
  note_end(pages_written);
}

}  // namespace isam
