#include "isam/log/logwriter.h"

#include "isam/files/files.h"
#include "isam/log/logfile.h"

namespace isam::txlog {
namespace {

// Whether an image is linked: in transaction mode, for a rollback finds it by its link.
Linked linked_as_open() { return (openp->mode & ISTRANS) != 0 ? Linked::kYes : Linked::kNo; }

// Notes that the current call has logged a change, unless logging has failed: gives `result` back.
int may_fail_yet(int result) {
  if (result != 0) return result;
  logstate.change_logged = true;
  logstate.transaction_before = openp->transaction;
  return 0;
}

// Puts an image together from its parts and appends it.
int iswimage(LogType type, std::int32_t number, ConstBytes old, ConstBytes record,
             When when = When::kNow) {
  LogPiece piece{openp, type, linked_as_open()};
  piece.record().put_image(type, {isfd_of(*openp), number, old, record});
  if (may_fail_yet(piece.writelog(when)) != 0) return -1;
  if (may_be_undone()) openp->transaction.undoable = true;
  if (may_be_undone() && type != LogType::kInsert) openp->transaction.frees_keys = true;
  return 0;
}

}  // namespace

int log_deleted(std::int32_t number, ConstBytes old) {
  return iswimage(LogType::kDelete, number, old, {});
}

int log_inserted(std::int32_t number, ConstBytes record) {
  return iswimage(LogType::kInsert, number, {}, record);
}

int log_updated(std::int32_t number, ConstBytes old, ConstBytes record, When when) {
  return iswimage(LogType::kUpdate, number, old, record, when);
}

int islogidx(IndexEvent event, const keydescr& key) {
  const LogType type = event == IndexEvent::kAdded     ? LogType::kIndexAdded
                       : event == IndexEvent::kDropped ? LogType::kIndexDropped
                                                       : LogType::kClustered;
  LogPiece piece{openp, type, Linked::kNo};
  piece.record().put_word(isfd_of(*openp));
  piece.record().put_key(key);
  const int result = piece.writelog();
  // What is logged of a clustering that fails is cut off by a LogHold.
  return event == IndexEvent::kClustered ? result : may_fail_yet(result);
}

int isloguid(std::int32_t value, bool set) {
  LogPiece piece{openp, set ? LogType::kUniqueSet : LogType::kUniqueTaken, Linked::kNo};
  piece.record().put_word(isfd_of(*openp));
  piece.record().put_long(value);
  return may_fail_yet(piece.writelog());
}

int islogbuild(std::string_view name, int reclen, const keydescr& key, int mode) {
  LogPiece piece{nullptr, LogType::kBuilt, Linked::kNo};
  LogRecordBuilder& builder = piece.record();
  builder.put_word(mode);
  builder.put_word(isreclen);
  builder.put_word(reclen);
  builder.put_key(key);
  builder.put_name(name);
  return piece.writelog();
}

int islogerase(std::string_view name) {
  LogPiece piece{nullptr, LogType::kErased, Linked::kNo};
  piece.record().put_name(name);
  return piece.writelog();
}

int islogrename(std::string_view from, std::string_view to) {
  LogPiece piece{nullptr, LogType::kRenamed, Linked::kNo};
  LogRecordBuilder& builder = piece.record();
  builder.put_word(static_cast<int>(from.size()) + 1);
  builder.put_word(static_cast<int>(to.size()) + 1);
  builder.put_name(from);
  builder.put_name(to);
  return piece.writelog();
}

int log_closed(Open& open) {
  LogPiece piece{&open, LogType::kClosed, Linked::kNo};
  LogRecordBuilder& builder = piece.record();
  builder.put_word(isfd_of(open));
  builder.put_word(open.file->geometry.varlen ? 1 : 0);
  builder.put_name(open.file->name);
  return piece.writelog();
}

int logclose(Open& open) {
  if (log_closed(open) != 0) return -1;
  open.logged = false;
  return 0;
}

void withdraw_change() {
  logstate.change_logged = false;
  openp->transaction = logstate.transaction_before;
  take_back_logged();
}

int log_end(LogType mark) { return LogPiece{nullptr, mark, Linked::kYes}.writelog(); }

}  // namespace isam::txlog
