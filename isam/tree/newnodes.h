// newnodes: nodes behind those that the dictionary counts, written past the pool.
//
// Nobody reads them before a dictionary counts them. Until then they are cut off again as if
// nothing had happened.
//
// Needs   the current file, exclusively open, with nothing unwritten
// Keeps   the nodes that are in use as they are: what is written to one of them waits, for
//         kept_back()
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "isam/records/freelists.h"
#include "isam/tree/treeload.h"

namespace isam {

class NewNodes final : public TreeNodes {
 public:
  using Page = std::array<Byte, kMaxNodeSize>;
  struct KeptBack {
    std::int32_t node;
    Page page;
  };

  // Puts the frame of a node around it.
  static void set_frame(Page& page, int used, Byte node_type, Byte level);

  NewNodes();

  [[nodiscard]] std::int32_t take() override;
  [[nodiscard]] int write(std::int32_t node, Byte level, ConstBytes items) override;
  [[nodiscard]] int write_page(std::int32_t node, const Page& page);
  // Lists the numbers as free in new nodes, before the list's `head` so far: the new head, or -1
  // with iserrno.
  [[nodiscard]] std::int32_t write_list(FreeList list, std::span<const std::int32_t> numbers,
                                        std::int32_t head);
  // The first node taken tells that storage pages behind it are nobody's, until end_unfinished()
  // makes an ordinary free node of it. Such pages in the file, which has so many bytes now, are
  // what a killed process has left, and are cut off. 0, or -1 with iserrno.
  [[nodiscard]] int begin_unfinished(std::int64_t& file_size);
  [[nodiscard]] int end_unfinished();
  // Writes what is still in memory: 0, or -1 with iserrno.
  [[nodiscard]] int flush();
  // The nodes taken from now on may be taken once more: rewind() begins again at the first of them.
  void begin_again_here() { again_ = next_; }
  void rewind();

  [[nodiscard]] std::int32_t first() const { return first_; }
  [[nodiscard]] std::int32_t last() const { return next_ - 1; }
  // The last node that may have been written.
  [[nodiscard]] std::int32_t last_written() const { return last_written_; }
  [[nodiscard]] const std::vector<KeptBack>& kept_back() const { return kept_back_; }

 private:
  std::int32_t first_;
  std::int32_t next_;
  std::int32_t again_ = 0;
  std::int32_t last_written_;
  std::int32_t buffered_ = 0;  // node at the begin of buffer_
  std::vector<Byte> buffer_;
  std::vector<KeptBack> kept_back_;
};

}  // namespace isam
