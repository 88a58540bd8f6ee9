#include "checker/keptindex.h"

#include <cerrno>
#include <new>
#include <utility>

#include "common/filecopy.h"
#include "common/io.h"
#include "environment/settings.h"

namespace checker {
namespace {

common::ConstBytes bytes_of(const std::string& text) {
  return {reinterpret_cast<const common::Byte*>(text.data()), text.size()};
}

// Whether a name is free for a kept index and for all that stands beside it. What another kept
// index has left over there would be taken for this one's.
bool is_free(const std::string& name) {
  return !common::name_exists(name) && !common::name_exists(undo_file_of(name)) &&
         !common::name_exists(data_file_of(name));
}

}  // namespace

// Unless KESTRO_KEEP is 1 or 0, what the repair takes away decides.
bool index_is_to_be_kept(bool takes_away) {
  const std::string wish = environment::lookup("KESTRO_KEEP").value_or("");
  return wish == "1" || (wish != "0" && takes_away);
}

bool KeptIndex::take(int index_fd, const std::string& index) {
  index_ = index;
  auto file = std::make_unique<TemporaryFile>(index);
  if (!*file) {
    errno = file->error();
    return false;
  }
  // undo_.kept describes the index that the repair finds, not the copy of it.
  if (common::copy_contents(index_fd, file->fd()) != 0 ||
      common::copy_attributes(index_fd, file->fd()) != 0 || describe(index_fd, undo_.kept) != 0 ||
      common::system_calls().fsync(file->fd()) != 0) {
    return false;
  }
  file_ = std::move(file);
  return true;
}

// Writes the undo data into a file of their own, which takes the place of one noted before.
int KeptIndex::note_undo_file() {
  if (undo_file_ != nullptr) undo_file_->withdraw();
  auto file = std::make_unique<TemporaryFile>(index_);
  if (!*file) {
    errno = file->error();
    return -1;
  }
  if (common::write_at(file->fd(), bytes_of(text_of(undo_)), 0) != 0 ||
      common::system_calls().fsync(file->fd()) != 0) {
    return -1;
  }
  undo_file_ = std::move(file);
  // A kept index without a name gets it in show(), and this file gets its name there too.
  return name_.empty() ? 0 : undo_file_->become(undo_file_of(name_));
}

int KeptIndex::note(int repaired_fd, int data_fd) {
  try {  // the repair may be in the pair already: nothing may be thrown past its end
    const bool described =
        describe(repaired_fd, undo_.repaired) == 0 && describe(data_fd, undo_.data) == 0;
    return described ? note_undo_data() : -1;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

int KeptIndex::note_undo_data() {
  if (store_undo_data(file_->fd(), undo_) != 0) return note_undo_file();
  return common::system_calls().fsync(file_->fd());
}

// Takes the first name that is free. A name that somebody else takes between the look and become()
// (EEXIST) is passed by.
int KeptIndex::show() {
  constexpr int kMostKept = 100000;
  if (!name_.empty()) return 0;
  const std::string first = index_ + ".before";
  std::string name = first;
  for (int number = 2; number < kMostKept; ++number) {
    if (is_free(name)) {
      if (file_->become(name) == 0) {
        name_ = name;
        return undo_file_ == nullptr ? 0 : undo_file_->become(undo_file_of(name));
      }
      if (errno != EEXIST) return -1;
    }
    name = first + "." + std::to_string(number);
  }
  errno = EEXIST;
  return -1;
}

// From here on neither a signal nor the destructor removes the files.
void KeptIndex::keep() {
  if (file_ == nullptr) return;
  kept_ = true;
  file_->keep();
  if (undo_file_ != nullptr) undo_file_->keep();
}

// Files that have got their names would stay by themselves: they go unless keep() was called.
KeptIndex::~KeptIndex() {
  if (kept_ || file_ == nullptr) return;
  file_->withdraw();
  if (undo_file_ != nullptr) undo_file_->withdraw();
}

}  // namespace checker
