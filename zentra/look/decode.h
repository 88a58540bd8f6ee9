// decode: what the bytes of a node, a record or the dictionary stand for, each named.
//
// Keeps   whatever the bytes say, the pieces cover all of them, in ascending order
#pragma once

#include <string>
#include <vector>

#include "isam.h"
#include "isam/base/format.h"

namespace zentra {

struct Piece {
  std::size_t offset;
  std::size_t length;
  std::string name;
  std::string value{};  // decoded; empty where bytes have no meaning
};

// Names bytes one piece after the other.
class Decoder {
 public:
  explicit Decoder(isam::ConstBytes bytes) : bytes_(bytes) {}

  // The next piece: as many bytes as there are, if less. Its bytes.
  isam::ConstBytes take(std::size_t length, std::string name, std::string value = {});
  // The same for a number of 1, 2 or 4 bytes: its value. A piece that is cut short has value 0.
  std::int64_t number(std::size_t length, std::string name, std::string meaning = {});
  // All bytes up to an offset; nothing where that is passed already.
  void take_up_to(std::size_t offset, std::string name);

  [[nodiscard]] std::size_t at() const { return at_; }
  [[nodiscard]] isam::ConstBytes rest() const { return bytes_.subspan(at_); }
  [[nodiscard]] std::vector<Piece> pieces() && { return std::move(pieces_); }
  // What the piece that was taken last stands for; nothing where there were no bytes for it.
  void mean(std::string value) {
    if (has_taken_) pieces_.back().value = std::move(value);
  }

 private:
  isam::ConstBytes bytes_;
  std::size_t at_ = 0;
  bool has_taken_ = false;
  std::vector<Piece> pieces_;
};

[[nodiscard]] std::vector<Piece> decode_dictionary(isam::ConstBytes bytes);

// What kind of node it is, by its marks and the current dictionary.
enum class NodeKind {
  kDictionary,
  kDescriptions,
  kFreeRecords,
  kFreeNodes,
  kStorage,
  kAudit,
  kTree
};
[[nodiscard]] NodeKind kind_of(std::int32_t node, isam::ConstBytes bytes);
[[nodiscard]] const char* name_of(NodeKind kind);
// `index`: the description of the index that a tree node belongs to, null where it is not known.
[[nodiscard]] std::vector<Piece> decode_node(NodeKind kind, isam::ConstBytes bytes,
                                             const keydescr* index);

// The slot of a record of the current pair, with the parts of the keys that these indexes take.
[[nodiscard]] std::vector<Piece> decode_record(isam::ConstBytes slot,
                                               const std::vector<keydescr>& indexes);

}  // namespace zentra
