// zentra info: what a pair is, in words.
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "checker/driver.h"
#include "isam/base/errors.h"
#include "isam/keys/keys.h"
#include "isam/log/audit.h"
#include "isam/records/varlen.h"
#include "zentra/check/deep.h"
#include "zentra/command/commands.h"
#include "zentra/command/pairnames.h"
#include "zentra/command/pairrunner.h"
#include "zentra/pair/readpair.h"
#include "zentra/report/text.h"

namespace zentra {
namespace {

using isam::dictp;
using isam::filep;

constexpr std::int64_t kBlock = 4096;  // what the system reads at once

// Says nothing of what a check finds.
class Muted : public Report {
 public:
  void begin(const char* /*command*/, int /*pairs*/) override {}
  void pair_begins(int /*number*/, int /*pairs*/, const std::string& /*name*/) override {}
  void pair_is(int /*number*/, const std::string& /*name*/) override {}
  void entry(const Entry& /*entry*/) override {}
  void pair_ends(Status /*status*/, const std::string& /*text*/,
                 const Fields& /*fields*/) override {}
  void end(Status /*status*/, const Fields& /*fields*/) override {}
};

struct IndexFacts {
  keydescr key{};
  std::int32_t nodes = 0;
  int levels = 0;
  std::int64_t used = 0;    // bytes of items
  std::int64_t jumps = 0;   // how often the next record lies in another block
  std::int64_t block = -1;  // of the record before
};

// Hears a check, and keeps of it what a pair is.
class Facts : public DeepCollector {
 public:
  Facts(Report& muted, isam::RecordLocks locks) : DeepCollector(muted, std::move(locks)) {}

  [[nodiscard]] bool wants_details() const override { return false; }
  [[nodiscard]] bool wants_trees() const override { return true; }
  void index_begins(int n, const keydescr& k) override {
    DeepCollector::index_begins(n, k);
    all_.push_back({.key = k});
  }
  void index_walked(std::int32_t nodes, int levels) override {
    DeepCollector::index_walked(nodes, levels);
    all_.back().nodes = nodes;
    all_.back().levels = levels;
  }
  void tree_node(int /*level*/, std::int32_t /*node*/, int used) override {
    all_.back().used += used;
  }
  void leaf_item(const Leaf& place, const isam::Item& item) override {
    DeepCollector::leaf_item(place, item);
    IndexFacts& facts = all_.back();
    const std::int64_t block = std::int64_t{item.recptr - 1} * isam::slot_size() / kBlock;
    facts.jumps += block != facts.block ? 1 : 0;
    facts.block = block;
  }
  [[nodiscard]] const std::vector<IndexFacts>& all() const { return all_; }

 private:
  std::vector<IndexFacts> all_;
};

class Telling {
 public:
  Telling(Report& report, const checker::Check& check, const Facts& facts)
      : report_(report), check_(check), facts_(facts), summary_(checker::summary_of(check)) {}

  void all() {
    records();
    for (std::size_t n = 0; n < facts_.all().size(); ++n) index(static_cast<int>(n) + 1);
    free_space();
    settings();
    open_by();
    belonging();
  }

 private:
  void note(const char* code, std::string text, Fields fields, int key = 0) {
    report_.entry({.kind = Entry::Kind::kNote,
                   .code = code,
                   .key = key,
                   .text = std::move(text),
                   .fields = std::move(fields)});
  }

  void records() {
    const isam::Geometry& is = filep->geometry;
    const std::string length =
        is.varlen ? fmt::format("{} to {}", is.reclen, is.maxreclen) : std::to_string(is.reclen);
    note("info.records",
         fmt::format("{} records of {} bytes, highest number {}", grouped(summary_.records_used),
                     length, grouped(dictp->d_nextdata())),
         {{"records", std::int64_t{summary_.records_used}},
          {"record-length", std::int64_t{is.reclen}},
          {"greatest-length", std::int64_t{is.maxreclen}},
          {"variable", is.varlen},
          {"highest", std::int64_t{dictp->d_nextdata()}}});
    note("info.nodes",
         fmt::format("{} index nodes of {} bytes, highest number {}", grouped(summary_.nodes_used),
                     isam::node_size(), grouped(dictp->d_nextnode())),
         {{"nodes", std::int64_t{summary_.nodes_used}},
          {"node-size", std::int64_t{isam::node_size()}},
          {"highest", std::int64_t{dictp->d_nextnode()}}});
  }

  void index(int n) {
    const IndexFacts& facts = facts_.all()[static_cast<std::size_t>(n) - 1];
    const std::int64_t room =
        std::int64_t{facts.nodes} * isam::item_area_limit(filep->geometry.idxsize);
    const std::int64_t percent = room == 0 ? 0 : 100 * facts.used / room;
    std::string text = key_in_words(facts.key);
    if (facts.key.nparts > 0) {
      text += fmt::format("; {} nodes, {} levels, {} % full", grouped(facts.nodes), facts.levels,
                          percent);
    }
    note("info.index", std::move(text),
         {{"parts", std::int64_t{facts.key.nparts}},
          {"duplicates", (facts.key.flags & KF_DUPS) != 0},
          {"compressed", (facts.key.flags & KF_COMPRESS) != 0},
          {"nodes", std::int64_t{facts.nodes}},
          {"levels", std::int64_t{facts.levels}},
          {"full", percent}},
         n);
    if (facts.key.nparts == 0 || facts.jumps == 0) return;
    const std::int64_t least = std::int64_t{summary_.records_used} * isam::slot_size() / kBlock + 1;
    note("info.clustering",
         fmt::format("a scan in its order goes to another block {} times; clustered by it, {}",
                     grouped(facts.jumps), grouped(std::min(least, facts.jumps))),
         {{"jumps", facts.jumps}, {"clustered", std::min(least, facts.jumps)}}, n);
  }

  void free_space() {
    note("info.free",
         fmt::format("free: {} record numbers, {} index nodes", grouped(summary_.records_free),
                     grouped(summary_.nodes_free)),
         {{"records", std::int64_t{summary_.records_free}},
          {"nodes", std::int64_t{summary_.nodes_free}}});
    if (!summary_.varlen) return;
    const std::int64_t room =
        std::int64_t{summary_.pages} * isam::RpageGeometry{filep->geometry.idxsize}.capacity;
    const std::int64_t percent =
        room == 0 ? 0 : 100 * (room - std::min(summary_.page_bytes_free, room)) / room;
    note("info.storage",
         fmt::format("{} storage pages, {} % full, {} bytes free", grouped(summary_.pages), percent,
                     grouped(summary_.page_bytes_free)),
         {{"pages", std::int64_t{summary_.pages}},
          {"full", percent},
          {"free", summary_.page_bytes_free}});
  }

  void settings() {
    const std::string_view stored{dictp->d_collname(),
                                  ::strnlen(dictp->d_collname(), isam::kCollationNameSize)};
    const std::string locale{dictp->d_collate() ? stored : "c"};
    note("info.locale", fmt::format("locale of keys: {}", shown(locale)),
         {{"locale", FileBytes{.bytes = locale}}});
    const std::string trail = isam::txlog::audit_trail_name();
    isam::clear_errors();
    if (dictp->d_auditnode() == 0) {
      note("info.audit", "no audit trail", {{"on", false}});
    } else {
      note("info.audit",
           fmt::format("audit trail \"{}\", {}", shown(trail), dictp->d_audits() ? "on" : "off"),
           {{"on", dictp->d_audits()}, {"name", FileBytes{.bytes = trail}}});
    }
    note("info.counters",
         fmt::format("next unique id {}, change stamp {}", dictp->d_uniqid(), dictp->d_modcount()),
         {{"unique-id", std::int64_t{dictp->d_uniqid()}},
          {"stamp", std::int64_t{dictp->d_modcount()}}});
  }

  void open_by() {
    const std::vector<pid_t> processes = isam::open_by();
    if (processes.empty()) note("info.open", "nobody else has it open", {});
    for (const pid_t process : processes) {
      note("info.open", "open by " + process_text(process), {{"process", std::int64_t{process}}});
    }
  }

  void belonging() {
    const bool together = check_.datreal >= dictp->d_nextdata() && !facts_.is_of_another_time();
    note("info.files",
         together ? "both files belong together"
                  : "the two files do not belong together: see zentra check",
         {{"together", together}});
    if (facts_.findings() == 0) return;
    note("info.faults",
         fmt::format("it is damaged: zentra check tells {} finding(s)", grouped(facts_.findings())),
         {{"findings", facts_.findings()}});
  }

  Report& report_;
  const checker::Check& check_;
  const Facts& facts_;
  checker::Summary summary_;
};

struct InfoOptions {
  bool json = false;
  double wait = 10;
  std::vector<std::string> names;
};

Outcome info_of(const InfoOptions& options, const std::string& name, Report& report) {
  ReadPair pair;
  const auto end = [&report](Status status, const std::string& text) {
    report.pair_ends(status, text, {});
    return Outcome{.status = status, .findings = 0};
  };
  if (!pair.open(name, as_time(options.wait)) || !pair.load())
    return end(pair.status(), pair.why());
  Muted muted;
  Facts facts(muted, isam::RecordLocks(dictp->d_nextdata()));
  const checker::Options how{.nflag = 1, .qflag = 1};
  checker::Check check(how, facts);
  static_cast<void>(checker::run_checks(check));
  isam::clear_errors();
  if (!check.sized) return end(worse(facts.status(), Status::kNeedsSalvage), "cannot be read");
  Telling{report, check, facts}.all();
  return end(Status::kSound, "that is what it is");
}

}  // namespace

std::function<int()> prepare_info(Arguments& arguments) {
  const auto options = std::make_shared<InfoOptions>();
  arguments.json(options->json);
  arguments.wait(options->wait);
  arguments.pairs(options->names);
  return [options] {
    return run_pairs({.command = "info",
                      .json = options->json,
                      .jobs = 1,
                      .pairs = pairs_named(options->names),
                      .good = kVerdictDone,
                      .work = [&](const std::string& name, Report& report) {
                        return info_of(*options, name, report);
                      }});
  };
}

}  // namespace zentra
