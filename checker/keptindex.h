// keptindex: the index as it was before a repair took from it what the records cannot give back.
//
//   "NAME.idx.before", or ".before.2", ".before.3" and so on: what is there stays
//
// `KESTRO_KEEP` 1 keeps it at every repair, 0 never.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "checker/temporaryfile.h"
#include "checker/undodata.h"

namespace checker {

// Whether a repair that takes something away (or takes nothing away) is to keep the old index.
[[nodiscard]] bool index_is_to_be_kept(bool takes_away);

class KeptIndex {
 public:
  // Copies the index, which is not changed yet. False with errno.
  [[nodiscard]] bool take(int index_fd, const std::string& index);
  // Notes what the repaired index is like: 0, or -1 with errno.
  [[nodiscard]] int note(int repaired_fd, int data_fd);
  // Gives it its name: 0, or -1 with errno. Until keep() it goes with its holder or at a signal.
  [[nodiscard]] int show();
  void keep();
  ~KeptIndex();

  KeptIndex() = default;
  KeptIndex(const KeptIndex&) = delete;
  KeptIndex& operator=(const KeptIndex&) = delete;

  [[nodiscard]] bool is_taken() const { return file_ != nullptr; }
  [[nodiscard]] bool is_kept() const { return kept_; }
  [[nodiscard]] const std::string& name() const { return name_; }

 private:
  [[nodiscard]] int note_beside();
  [[nodiscard]] int note_in_file();

  std::string index_;
  std::string name_;
  std::unique_ptr<TemporaryFile> file_;
  std::unique_ptr<TemporaryFile> undo_file_;
  UndoData undo_;
  bool kept_ = false;
};

}  // namespace checker
