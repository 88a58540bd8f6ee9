// logwriter: one function for each kind of change that the calls of the library log.
//
// Needs   an open log. What takes no Open and no name is about the current open, whose changes are
//         logged (logs_changes); log_end() is about the process
// Gives   0, or -1 with 121: then nothing was logged
#pragma once

#include <string_view>

#include "isam/base/current.h"
#include "isam/log/logformat.h"

namespace isam::txlog {

enum class When : bool;

// The image of a change to one record: its bytes before the change, after it, or both.
int log_deleted(std::int32_t number, ConstBytes old);
int log_inserted(std::int32_t number, ConstBytes record);
int log_updated(std::int32_t number, ConstBytes old, ConstBytes record, When when);

enum class IndexEvent { kAdded, kDropped, kClustered };
int islogidx(IndexEvent event, const keydescr& key);
// A unique id handed out, or (`set`) the value that the counter was given.
int isloguid(std::int32_t value, bool set);

// What becomes of files.
int islogbuild(std::string_view name, int reclen, const keydescr& key, int mode);
int islogerase(std::string_view name);
int islogrename(std::string_view from, std::string_view to);

// The close of an open that the log knows of, not of the log (close_log); from now on the log does
// not know the open.
int logclose(Open& open);
// The same while the log is held: whether the open closes is not sure yet, and it stays known.
int log_closed(Open& open);

// Takes back the change that the current call has logged through the current open: it was not made.
void withdraw_change();

// The mark that ends this process's transaction, of which the log has the begin mark: kCommit or
// kRollback.
int log_end(LogType mark);

}  // namespace isam::txlog
