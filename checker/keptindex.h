// keptindex: the index as it was before a repair took from it what the records cannot give back.
//
// It is named "NAME.idx.before". When a file has that name already, it stays, and the new one is
// named "NAME.idx.before.2", "NAME.idx.before.3" and so on. With it goes a note for undoing the
// repair (checker/undodata).
//
// `KESTRO_KEEP` 1 keeps it at every repair, 0 never; without either it is kept when the repair
// takes something away. A change of node size keeps the old index as NAME.IDX instead.
//
// Needs   take() first, then show() and note() in any order. keep() when the files must outlive the
//         repair, and again when note() comes after it: that may have made another file
// Never   leaves a named file behind without keep(), unless the process is killed
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "checker/temporaryfile.h"
#include "checker/undodata.h"

namespace checker {

// Whether a repair is to keep the old index. `takes_away`: it takes from the index what the records
// cannot give back.
[[nodiscard]] bool index_is_to_be_kept(bool takes_away);

class KeptIndex {
 public:
  // Copies the index, whose path is `index`, into a temporary file. The index must not have been
  // changed yet. False with errno.
  [[nodiscard]] bool take(int index_fd, const std::string& index);
  // Notes what the repaired index and the data file are like, in an attribute of the kept file or
  // in a file beside it: 0, or -1 with errno. Without this note the repair cannot be undone.
  [[nodiscard]] int note(int repaired_fd, int data_fd);
  // Gives the kept file its name, and the file beside it as soon as there is one: 0, or -1 with
  // errno. Until keep() a signal removes them, and so does the destructor. Once it has a name
  // nothing more is done.
  [[nodiscard]] int show();
  // From now on the files that there are stay. Does nothing when nothing was taken.
  void keep();
  ~KeptIndex();

  KeptIndex() = default;
  KeptIndex(const KeptIndex&) = delete;
  KeptIndex& operator=(const KeptIndex&) = delete;

  [[nodiscard]] bool is_taken() const { return file_ != nullptr; }
  [[nodiscard]] bool is_kept() const { return kept_; }
  [[nodiscard]] const std::string& name() const { return name_; }

 private:
  // Stores the undo data as an attribute of the kept file, else in a file beside it: 0, or -1 with
  // errno.
  [[nodiscard]] int note_undo_data();
  // Stores it in the file beside it, as above.
  [[nodiscard]] int note_undo_file();

  std::string index_;                         // path of the index
  std::string name_;                          // path of the kept file; empty before show()
  std::unique_ptr<TemporaryFile> file_;       // the kept file
  std::unique_ptr<TemporaryFile> undo_file_;  // the one beside it; null while there is none
  UndoData undo_;
  bool kept_ = false;
};

}  // namespace checker
