#include "checker/keptindex.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <utility>

#include "common/filecopy.h"
#include "common/io.h"
#include "environment/settings.h"

namespace checker {
namespace {

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

common::ConstBytes bytes_of(const std::string& text) {
  return {reinterpret_cast<const common::Byte*>(text.data()), text.size()};
}

}  // namespace

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
  if (common::copy_contents(index_fd, file->fd()) != 0 ||
      common::copy_attributes(index_fd, file->fd()) != 0 || describe(index_fd, undo_.kept) != 0 ||
      common::system_calls().fsync(file->fd()) != 0) {
    return false;
  }
  file_ = std::move(file);
  return true;
}

int KeptIndex::note_in_file() {
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
  // Named together with the index when that gets its name.
  return name_.empty() ? 0 : undo_file_->become(undo_file_of(name_));
}

int KeptIndex::note(int repaired_fd, int data_fd) {
  try {
    const bool described =
        describe(repaired_fd, undo_.repaired) == 0 && describe(data_fd, undo_.data) == 0;
    return described ? note_beside() : -1;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return -1;
  }
}

int KeptIndex::note_beside() {
  if (store_undo_data(file_->fd(), undo_) != 0) return note_in_file();
  return common::system_calls().fsync(file_->fd());
}

int KeptIndex::show() {
  constexpr int kMostKept = 100000;
  const std::string first = index_ + ".before";
  std::string name = first;
  for (int number = 2; number < kMostKept; ++number) {
    if (!exists(name) && !exists(undo_file_of(name))) {
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

void KeptIndex::keep() {
  if (file_ == nullptr) return;
  kept_ = true;
  file_->keep();
  if (undo_file_ != nullptr) undo_file_->keep();
}

KeptIndex::~KeptIndex() {
  if (kept_ || file_ == nullptr) return;
  file_->withdraw();
  if (undo_file_ != nullptr) undo_file_->withdraw();
}

}  // namespace checker
