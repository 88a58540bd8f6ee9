// oldindex: what is left of an index file, whatever has become of it.
//
// Needs   no lock, no data file, and nothing of the file to be right
// Gives   the dictionary where it may be one, key descriptions, nodes; the node size also where the
//         dictionary is gone, from the marks of nodes
// Never   changes a byte
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "isam.h"
#include "isam/base/format.h"
#include "zentra/salvage/rescuefile.h"

namespace zentra {

class OldIndex {
 public:
  // False: there is none; why() tells.
  [[nodiscard]] bool open(const std::string& path);
  explicit operator bool() const { return static_cast<bool>(file_); }
  [[nodiscard]] const RescueFile& file() const { return file_; }
  [[nodiscard]] const std::string& why() const { return file_.why(); }

  // None where the first bytes can be no dictionary's.
  [[nodiscard]] const std::optional<isam::Dictionary>& header() const { return dictionary_; }
  // Whether the stamp in the file is another one by now.
  [[nodiscard]] bool has_changed();

  // 0 where nothing tells it: then there are no nodes.
  [[nodiscard]] int stored_size() const { return stored_size_; }
  [[nodiscard]] std::int32_t last_node() const { return last_node_; }
  // The bytes of a node, until the next call; empty where the file has none of that number, or it
  // cannot be read.
  [[nodiscard]] isam::Bytes node(std::int32_t number);
  // Whether there was a node of this number, of which nothing is left.
  [[nodiscard]] bool is_gone(std::int32_t number);
  // Whether a node has the marks of a storage page, both of them or one.
  [[nodiscard]] bool is_storage(isam::ConstBytes node) const;
  [[nodiscard]] bool may_be_storage(isam::ConstBytes node) const;
  // How many record numbers were in use; nothing where the list of free ones does not come to its
  // end, or no index of this size has so many.
  [[nodiscard]] std::optional<std::int64_t> records_in_use();
  // Storage pages in order, as long as `take` gives true.
  void each_page(const std::function<bool(std::int32_t node, isam::Bytes page)>& take);

  struct Keys {
    std::vector<keydescr> keys;  // as isaddindex() takes them
    bool are_all = false;        // the chain is whole, and has as many as the dictionary counts
  };
  // Of records of so many bytes.
  [[nodiscard]] Keys keys(int length);

 private:
  static constexpr std::size_t kCached = 256;
  struct Cached {
    std::int32_t number = 0;
    std::array<isam::Byte, isam::kMaxNodeSize> bytes{};
  };

  void take_dictionary();
  void find_node_size();
  [[nodiscard]] static int score_of(int node_size, isam::ConstBytes piece, std::int64_t offset);
  [[nodiscard]] std::vector<std::int32_t> description_nodes();

  RescueFile file_;
  std::optional<isam::Dictionary> dictionary_;
  int stored_size_ = 0;
  std::int32_t last_node_ = 0;
  std::vector<Cached> cache_;
};

}  // namespace zentra
