#include "isam/tree/newnodes.h"

#include <algorithm>
#include <cerrno>

#include "common/io.h"
#include "isam/base/errors.h"
#include "isam/pool/nodechain.h"
#include "isam/records/unfinished.h"

namespace isam {
namespace {

constexpr std::size_t kBufferSize = std::size_t{64} << 10;

}  // namespace

void NewNodes::set_frame(Page& page, int used, Byte node_type, Byte level) {
  const int size = filep->geometry.idxsize;
  common::stword(static_cast<std::uint32_t>(used), page.data());
  page[static_cast<std::size_t>(node_type_offset(size))] = node_type;
  page[static_cast<std::size_t>(node_level_offset(size))] = level;
}

NewNodes::NewNodes()
    : first_(number_behind(dictp->d_nextnode())),
      next_(first_),
      last_written_(dictp->d_nextnode()) {}

std::int32_t NewNodes::take() {
  if (next_ == INT32_MAX) return failed(kCorrupted);
  return next_++;
}

int NewNodes::write(std::int32_t node, Byte level, ConstBytes items) {
  Page page{};
  std::copy(items.begin(), items.end(), page.begin() + kUsedBytes);
  set_frame(page, static_cast<int>(items.size()) + kUsedBytes, kTreeNode, level);
  return write_page(node, page);
}

int NewNodes::write_page(std::int32_t node, const Page& page) {
  if (node < first_) {
    kept_back_.push_back({node, page});
    return 0;
  }
  const auto size = static_cast<std::size_t>(node_size());
  const bool follows = static_cast<std::size_t>(node - buffered_) * size == buffer_.size();
  if ((!follows || buffer_.size() >= kBufferSize) && flush() != 0) return -1;
  if (buffer_.empty()) buffered_ = node;
  buffer_.insert(buffer_.end(), page.begin(), page.begin() + node_size());
  return 0;
}

int NewNodes::flush() {
  if (buffer_.empty()) return 0;
  const std::int64_t offset = std::int64_t{buffered_ - 1} * node_size();
  last_written_ = std::max(last_written_, last());
  if (common::write_in_pieces(filep->index.fd, buffer_, offset) != 0) {
    return failed_system(errno, Operation::kWrite, FileKind::kIndex);
  }
  buffer_.clear();
  return 0;
}

void NewNodes::rewind() {
  next_ = again_;
  buffer_.clear();  // nothing before again_ is in it
  kept_back_.clear();
}

int NewNodes::begin_unfinished(std::int64_t& file_size) {
  if (std::int64_t{first_} * node_size() <= file_size) {
    const int cut = drop_unfinished(first_);
    if (cut < 0) return -1;
    if (cut > 0) file_size = std::int64_t{first_ - 1} * node_size();
  }
  const std::int32_t node = take();
  if (node < 0) return -1;
  Page page{};
  set_frame(page, kEntriesOffset, kIndexFreeNode, kFreeLevel);
  common::copy_bytes(kUnfinished, page.data() + kEntriesOffset);
  return write_page(node, page);
}

int NewNodes::end_unfinished() {
  Page page{};
  set_frame(page, kEntriesOffset, kIndexFreeNode, kFreeLevel);
  const ConstBytes node{page.data(), static_cast<std::size_t>(node_size())};
  if (common::write_at(filep->index.fd, node, std::int64_t{first_ - 1} * node_size()) == 0)
    return 0;
  return failed_system(errno, Operation::kWrite, FileKind::kIndex);
}

std::int32_t NewNodes::write_list(FreeList list, std::span<const std::int32_t> numbers,
                                  std::int32_t head) {
  const bool nodes = list == FreeList::kNodes;
  const auto most = static_cast<std::size_t>(list_entries(filep->geometry.idxsize));
  while (!numbers.empty()) {
    const auto some = numbers.last(std::min(numbers.size(), most));
    numbers = numbers.first(numbers.size() - some.size());
    Page page{};
    ListLink{page.data()}.set(head);
    Byte* to = page.data() + kEntriesOffset;
    // The list gives its last number first.
    for (std::size_t i = some.size(); i-- > 0; to += kListEntrySize) common::stlong(some[i], to);
    set_frame(page, static_cast<int>(to - page.data()), nodes ? kIndexFreeNode : kServiceNode,
              kFreeLevel);
    head = take();
    if (head < 0 || write_page(head, page) != 0) return -1;
  }
  return head;
}

}  // namespace isam
