// oldparts: the variable parts of records, out of what is left of an index file.
//
//   for each record that is present: parts.note(number, trailer);
//   if (parts.settle() != 0) return failed(errno);
//   ... parts.part_of(number, trailer) ...
//
// A reference is followed where it leads to as many bytes as the record has. What has lost its way
// (a reference or a page that is damaged) is found again where just one chain of pieces that no
// record names has the length that is missing, and no other record misses as much.
//
// Keeps   memory is bounded: of very many damaged parts none is found again
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/sorter.h"
#include "zentra/salvage/oldindex.h"

namespace zentra {

class OldParts {
 public:
  // `greatest`: bytes of the longest variable part; 0 where that is not known.
  OldParts(OldIndex& index, int greatest);

  // 0, or -1 with errno. `is_sure`: it is a record, and not only what may be one.
  [[nodiscard]] int note(std::int64_t record, isam::ConstBytes trailer, bool is_sure);
  [[nodiscard]] int settle();

  enum class How : std::uint8_t { kWhole, kFoundAgain, kBroken };
  struct Part {
    How how = How::kWhole;
    std::string bytes{};  // of a broken part what could be followed
  };
  [[nodiscard]] Part part_of(std::int64_t record, isam::ConstBytes trailer);
  // What no record names, a chain of pieces at a time.
  void each_unused(const std::function<void(std::string_view bytes)>& take);

  // Whether references lead so often to what is not their records' that the index is another data
  // file's. Then there are no parts.
  [[nodiscard]] bool is_foreign() const;
  [[nodiscard]] std::int64_t whole() const { return whole_; }
  [[nodiscard]] std::int64_t astray() const { return astray_; }
  // Pieces that belong to several records.
  [[nodiscard]] std::int64_t shared() const { return shared_; }
  // Whether there are too many broken or unused parts to look at each.
  [[nodiscard]] bool is_too_much() const { return is_too_much_; }

 private:
  using Place = std::uint64_t;  // node and slot

  struct Piece {
    int length = 0;
    Place next = 0;  // of the piece behind it, 0: none
  };
  struct Broken {
    std::int64_t record;
    Place first;
    int length;
  };
  // How a broken part goes on: when so much is left, there.
  struct Mended {
    int left;
    Place from;
  };
  struct Walk {
    std::string bytes{};
    std::vector<Place> places{};
    int left = 0;
    int last_left = 0;           // in front of the last piece
    bool has_surplus = false;    // that piece is longer
    bool leads_astray = false;   // to what is no piece of it
    bool leads_to_gone = false;  // ... to a page of which nothing is left
  };

  [[nodiscard]] static Place place_of(std::int32_t pointer);
  // A piece of a part of which so much is left, and its bytes.
  [[nodiscard]] std::optional<Piece> piece_at(Place place, int left, isam::ConstBytes& bytes);
  [[nodiscard]] Walk follow(Place from, int length, int stop_at = 0);
  [[nodiscard]] std::optional<Walk> follow_to_end(Place from);
  void take_unused(std::int32_t node, isam::Bytes page, const std::vector<bool>& named);
  [[nodiscard]] bool has_odd_length(int length, Place first) const;
  [[nodiscard]] bool is_unused(const Walk& walk, std::size_t pieces) const;
  void claim(const Walk& walk, std::size_t pieces);
  void mend();
  void mend_by_length();
  void mend_lengths();
  [[nodiscard]] static std::size_t own_pieces(const Walk& walk);
  [[nodiscard]] std::map<Place, int> heads(const std::set<Place>& others) const;

  OldIndex& index_;
  int greatest_;
  int chunk_;
  common::Sorter named_;
  std::vector<Broken> broken_;
  std::map<Place, Piece> unused_;
  std::map<std::int64_t, Mended> mended_;
  std::set<std::int64_t> lengths_mended_;  // records whose chains are as long as they are
  std::int64_t whole_ = 0;
  std::int64_t astray_ = 0;
  std::int64_t shared_ = 0;
  bool is_too_much_ = false;
};

}  // namespace zentra
