#include "txlog/heldrecords.h"

#include <algorithm>
#include <unordered_map>

#include "txlog/outlook.h"
#include "txlog/replayfiles.h"

namespace isam::txlog {
namespace {

// In the place of a record's number: the file as a whole.
constexpr std::int32_t kWhole = 0;

std::int32_t key_number(const Held& held) {
  return held.about == About::kRecord ? held.number : kWhole;
}

// Whether it is found by what it is about, so stands in a bucket.
bool is_keyed(const Held& held) {
  return held.about == About::kFile || held.about == About::kRecord;
}

}  // namespace

HeldId HeldRecords::add(const Held& held) {
  HeldId id = free_;
  if (id != kNoHeld) {
    free_ = pool_[id].next;
    pool_[id] = held;
  } else {
    id = static_cast<HeldId>(pool_.size());
    pool_.push_back(held);
  }
  Held& added = pool_[id];
  if (added.file == nullptr || added.about < About::kOpening) return id;
  added.findable = true;
  if (++findable_ > buckets_.size()) grow();
  append(file_list(added), id, &Held::by_file);
  if (is_keyed(added)) append(bucket_of(added.file, key_number(added)), id, &Held::by_record);
  return id;
}

void HeldRecords::hide(HeldId id) {
  Held& held = pool_[id];
  if (!held.findable) return;
  held.findable = false;
  --findable_;
  unlink(file_list(held), id, &Held::by_file);
  if (is_keyed(held)) unlink(bucket_of(held.file, key_number(held)), id, &Held::by_record);
}

void HeldRecords::remove(HeldId id) {
  hide(id);
  pool_[id].next = free_;
  free_ = id;
}

HeldList& HeldRecords::bucket_of(const ReplayFile* file, std::int32_t number) {
  const std::uint64_t key = (std::uint64_t{file->id} << 32) | static_cast<std::uint32_t>(number);
  const std::uint64_t mixed = (key ^ (key >> 29)) * 0x9E3779B97F4A7C15U;
  return buckets_[(mixed >> 20) & (buckets_.size() - 1)];
}

HeldList& HeldRecords::file_list(const Held& held) {
  return held.linked ? held.file->linked : held.file->unlinked;
}

void HeldRecords::append(HeldList& list, HeldId id, Which which) {
  (pool_[id].*which) = {list.last, kNoHeld};
  (list.last == kNoHeld ? list.first : (pool_[list.last].*which).behind) = id;
  list.last = id;
}

void HeldRecords::unlink(HeldList& list, HeldId id, Which which) {
  const Held::Links links = pool_[id].*which;
  (links.before == kNoHeld ? list.first : (pool_[links.before].*which).behind) = links.behind;
  (links.behind == kNoHeld ? list.last : (pool_[links.behind].*which).before) = links.before;
}

// Twice as many buckets: the lists stay in the order of the log.
void HeldRecords::grow() {
  std::vector<HeldList> old(2 * buckets_.size());
  old.swap(buckets_);
  for (const HeldList& list : old) {
    for (HeldId id = list.first; id != kNoHeld;) {
      const HeldId behind = pool_[id].by_record.behind;
      append(bucket_of(pool_[id].file, key_number(pool_[id])), id, &Held::by_record);
      id = behind;
    }
  }
}

void HeldRecords::find_about(std::vector<HeldId>& found, const Touch& touch, About about,
                             std::int32_t number) {
  HeldId id = bucket_of(touch.file, number).first;
  for (; id != kNoHeld && step(); id = pool_[id].by_record.behind) {
    const Held& held = pool_[id];
    if (held.offset >= touch.offset) return;
    const bool same = held.file == touch.file && held.about == about && key_number(held) == number;
    if (same && held.writer != touch.writer) found.push_back(id);
  }
}

void HeldRecords::find_all(std::vector<HeldId>& found, const Touch& touch, const HeldList& list) {
  for (HeldId id = list.first; id != kNoHeld && step(); id = pool_[id].by_file.behind) {
    const Held& held = pool_[id];
    if (held.offset >= touch.offset) return;
    if (held.about != About::kOpening && held.writer != touch.writer) found.push_back(id);
  }
}

std::vector<HeldId> HeldRecords::about_record(const Touch& touch, std::int32_t number) {
  std::vector<HeldId> found;
  if (touch.file != nullptr) find_about(found, touch, About::kRecord, number);
  return found;
}

std::vector<HeldId> HeldRecords::about_file(const Touch& touch) {
  std::vector<HeldId> found;
  if (touch.file == nullptr || touch.about < About::kOpening) return found;
  if (touch.all_records) {
    find_all(found, touch, touch.file->linked);
    find_all(found, touch, touch.file->unlinked);
  } else {
    find_about(found, touch, About::kFile, kWhole);
  }
  return found;
}

void HeldRecords::complete(std::vector<HeldId>& found, LogOutlook& outlook) {
  for (const HeldId id : found) pool_[id].chosen = true;
  if (!found.empty()) add_companions(found, *pool_[found.front()].file, outlook);
  for (const HeldId id : found) pool_[id].chosen = false;
  std::ranges::sort(found, {}, [this](HeldId id) { return pool_[id].offset; });
}

void HeldRecords::add_companions(std::vector<HeldId>& found, ReplayFile& file,
                                 LogOutlook& outlook) {
  // Where a writer's last record in `found` stands, and its last one outside its transaction.
  struct Ends {
    std::int64_t any = 0;
    std::int64_t unlinked = 0;
  };
  std::unordered_map<const Writer*, Ends> ends;
  std::int64_t end = 0;
  for (const HeldId id : found) {
    const Held& held = pool_[id];
    Ends& of_writer = ends[held.writer];
    of_writer.any = std::max(of_writer.any, held.offset);
    if (!held.linked) of_writer.unlinked = std::max(of_writer.unlinked, held.offset);
    end = std::max(end, held.offset);
  }
  HeldId id = file.unlinked.first;
  for (; id != kNoHeld && pool_[id].offset < end && step(); id = pool_[id].by_file.behind) {
    const Held& held = pool_[id];
    const auto of_writer = ends.find(held.writer);
    if (of_writer == ends.end()) continue;
    const bool goes = held.about == About::kOpening ? held.offset < of_writer->second.any
                                                    : held.offset < of_writer->second.unlinked &&
                                                          !waits_for_image(held, outlook);
    if (!goes || held.chosen) continue;
    pool_[id].chosen = true;
    found.push_back(id);
  }
}

// Whether a linked image of the same writer and record stands before a held record, and is neither
// chosen nor taken back.
bool HeldRecords::waits_for_image(const Held& held, LogOutlook& outlook) {
  if (held.about != About::kRecord) return false;
  HeldId id = bucket_of(held.file, held.number).first;
  for (; id != kNoHeld && step() && pool_[id].offset < held.offset;
       id = pool_[id].by_record.behind) {
    const Held& other = pool_[id];
    const bool same = other.about == About::kRecord && other.file == held.file &&
                      other.number == held.number && other.writer == held.writer;
    const bool waits = same && other.linked && !other.chosen;
    if (waits && !outlook.was_taken_back(other.offset)) return true;
  }
  return false;
}

}  // namespace isam::txlog
