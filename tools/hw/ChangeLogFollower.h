// Follows one table type's change log in an agent's instance (read-only), in
// version order, and applies each change to simulated per-unit hardware
// tables in the hardware writer's own instance, publishing how far it got.
//
//   MicaMplsHw::InstanceView agent("mpls-agent");
//   MicaMplsHw::HwStore store("mpls-agent", 65536);
//   MicaMplsHw::ChangeLogFollower<MicaMpls::MplsIsem2Binding> isem2(
//       agent, store, [](const MicaMplsHw::FollowEvent &e) { say(e.text); });
//   for (;;) {
//     const auto step = isem2.step(4096);  // up to 4096 changes, then publish
//     if (step.published) MicaMplsHw::notifyAgent("mpls-agent");
//     if (step.applied == 0) { isem2.checkSource(); sleepAWhile(); }
//   }
//
// What it requires of a table type B (a binding of the generic table code):
// B::Key, a label key (label, qualifier); B::LogEntry, whose `key` is the
// entry's key and which fmt can format; B::Constants::{tableName, groupName,
// swTableTypeId, tableEntryLogSlatePath(), configSlatePath(unit)}; and the
// entry-log entities Asic::EntryLogSlate<B> and Asic::ConfigSlate<B>.
//
// Version order and gaps. The agent reserves a version before it writes the
// change's record, so a version can be reserved and never used (an agent
// killed in between, or a change refused by a full table). Version g is
// skipped only when a record with a higher version was seen and a scan that
// began after that one still does not find g. One scan is not enough: it can
// miss a record published while it ran. But the agent writes the record of g
// before it reserves any later version, so once a later record is visible,
// g's record is visible to any scan that starts afterwards, or never comes.
//
// Applying. A write puts the log entry in the unit's table (insert or
// replace), an entry delete removes the key, a table delete empties the
// unit's table. A write of a new key into a full table is refused:
// reported, counted and recorded among the refusals (HwRefusalSlate.h)
// before the version that covers it is published, so that the agent fails
// the change instead of reporting it done; the version still advances. A later change of the key that is taken
// (or a rebuild that puts the key in) forgets the refusal. A refusal that
// cannot be recorded (no record left) holds the follower up until one can.
//
// Progress per table. The version is published once per step (up to
// `budget` changes), so a writer killed in a step has applied changes
// beyond the version it published, and its successor reads them again.
// Applied again in version order they would end in the same tables, but on
// the way the hardware would go back: a table delete empties a unit that
// holds what later changes wrote, a write puts back an entry a later change
// removed or moved, until the replay gets there again. So each unit's table
// keeps the version of the last change applied to it in its collection's
// scratchpad word, stored after the change (a change cut off in the middle
// is below it and is applied again, which completes it), and a hash of that
// change's record in its auxiliary word; a change at or below the version
// is not applied again. That holds only while the log is the one those
// changes came from: when it is attached, each table whose version is above
// the one published must find, at that version, the very change it took
// (same hash). A table that does not (the agent's store was put back to an
// older copy while the writer was stopped in a step: the log's versions
// above the copy's are other changes) has the tables rebuilt from the
// configuration. A rebuild of a table sets its word to 0 before it changes
// anything, because the versions that follow a rebuild need not be above
// those of the log followed before (a new log, versions that went back),
// and a rebuild cut off leaves a table that only a full replay from the
// version published brings back.
//
// Following the right log. The follow record names the change-log file
// (sourceIdOf) the tables are in step with, and the agent's rebuild version
// (the log's epoch word) they were rebuilt at. When the log is another file
// (first start, an agent store made anew), the agent asks for a rebuild
// (its log was behind what the writer had published, or it lost a unit's
// configuration: the tables may hold what it does not know of), its
// versions went backwards, the
// writer's own records were lost, or a scan dropped a damaged record (see
// below), the follower rebuilds the tables from the agent's configuration
// tables, which hold every committed entry: a rebase. rebaseNeeded() is the
// one place that decides it; rebase() either completes and publishes, or
// changes nothing it publishes and is retried by a later step.
//
// A rebase takes its base, the last change the agent wrote whole (the log's
// auxiliary word), before it reads any configuration: every change after
// the base is still in the log (the agent retires only published versions)
// and is applied on top, in order, so whatever the configuration read of a
// change in progress comes out right. It publishes the base only once every
// unit's table is rebuilt. Until then the version published and the follow
// record say what they said: a writer killed in the middle finds its record
// naming another log (or none) and rebuilds again, or, when it rebuilt the
// log it follows, resumes from a version the tables still hold. For that, a
// rebuild of the log followed waits until the base reaches the version
// published: the configuration then holds every change published, and each
// key of a table half rebuilt is either as it was or as the configuration
// has it. A table found wiped is rebuilt from its unit's configuration the
// same way, before the change that found it is applied, and keeps its wiped
// flag until then.
//
// A unit whose configuration cannot be read (a damaged file, a failed read
// of its records) is never rebuilt from what was read: its table is left as
// it is, the rebase (or the change to the wiped table) does not complete,
// the problem is reported once until it changes, and the step is retried
// after a pause that grows while the unit stays unreadable.
//
// Damaged records. A scan drops a record that fails its checks, and the
// record reads as absent from then on, so its version would look like one
// reserved and never used. So after a scan that dropped records, no version
// up to the log's last reserved one is skipped: the follower rebuilds from
// the configuration instead, at once when those versions are above the one
// taken, and again if one of them turns up missing below a later record.
// That rebuild must go past the missing version; the agent's last complete
// change has reached it then (the agent writes a record only after every
// change before it is complete), or the rebuild waits until it has.
//
// Not thread-safe.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "OrderedTable/EntryLogRecords.h"
#include "platform/asic/Constants.h"
#include "platform/framework/Hash.h"
#include "platform/trace/Trace.h"
#include "tools/hw/HwStore.h"
#include "tools/hw/InstanceView.h"

// Traces of a follower name the function and line of the call.
#define HW_TRACE(level, ...)                                                   \
  MICA_TRACE(Trace::handleOf<ChangeLogFollower>(), level,                      \
             "tools/hw/ChangeLogFollower", "ChangeLogFollower", __VA_ARGS__)

namespace MicaMplsHw {

// Something an operator should hear of, one line of text each.
struct FollowEvent {
  enum class Kind {
    waiting,    // no change log to follow (yet)
    following,  // a change log was found and is followed
    sourceLost, // the followed log's file was removed or replaced
    problem,    // the log or a unit's configuration cannot be read
    resync,     // tables rebuilt from the agent's configuration
    gapSkipped, // versions that were reserved and never used
    tableFull,  // a write of a new key into a full hardware table
  };
  Kind kind;
  std::string text;
};
using FollowEventFn = std::function<void(const FollowEvent &)>;

// What one step did.
struct FollowStep {
  std::size_t applied = 0; // changes applied
  bool published = false;  // a version was published
};

// Counts of this follower's life (the follow record keeps the same over
// every run of the writer).
struct FollowCounters {
  std::uint64_t changesApplied = 0;
  std::uint64_t tableFullReports = 0;
  std::uint64_t gapsSkipped = 0;
  std::uint64_t resyncs = 0;
};

template <typename B> class ChangeLogFollower {
public:
  using Key = typename B::Key;
  using LogEntry = typename B::LogEntry;
  using LogRecord = Asic::LogSlateEntry<B>;
  using LogSlate = Asic::EntryLogSlate<B>;
  using ConfigSlate = Asic::ConfigSlate<B>;
  using ConfigEntry = Asic::ConfigSlateEntry<B>;

  // Resumes from the version `store` published last. `agent` and `store`
  // must outlive the follower.
  ChangeLogFollower(InstanceView &agent, HwStore &store, FollowEventFn events)
      : agent_(agent), store_(store), events_(std::move(events)),
        logPath_(B::Constants::tableEntryLogSlatePath()),
        configBase_(Asic::Constants::canonicalGroupTableConfigSlatePathBase(
            B::Constants::groupName, B::Constants::tableName)) {
    published_ = store_.published(tableId_);
    record_ = store_.followRecord(tableId_);
    taken_ = published_.value_or(0);
    HW_TRACE(2, "{}: resuming at version {} (log {:#x})", tableName(), taken_,
             record_.sourceId);
  }

  static constexpr const char *tableName() noexcept {
    return B::Constants::tableName;
  }
  Asic::SwTableId tableId() const noexcept { return tableId_; }
  // The version taken (and, after a step, published).
  Asic::LogVersion version() const noexcept { return taken_; }
  // Whether a change log is mounted and followed.
  bool following() const noexcept { return log_ != nullptr; }
  // Whether the follower is held up: a rebase or the rebuild of a wiped
  // table could not complete (a unit's configuration could not be read, or
  // the agent has a change to complete first) and waits to be retried.
  bool stalled() const noexcept { return log_ != nullptr && stalled_; }
  const FollowCounters &counters() const noexcept { return run_; }
  // The follow record as published last (counters over every run).
  const FollowRecord &followRecord() const noexcept { return record_; }

  // Applies up to `budget` changes that follow the version taken, in version
  // order, and publishes the new version if it moved. Mounts the change log
  // when needed and rebases when needed (see the top of the file). Nothing
  // happens while there is no log; after a look that found none, the next
  // is at least 50 ms later, 1 s after one that failed, and 1 s to 32 s
  // after a unit whose configuration could not be read (kRetryUnreadMost).
  // Throws the store's errors for the writer's own instance; problems of
  // the agent's instance are reported as events and retried by a later
  // step.
  FollowStep step(std::size_t budget) {
    FollowStep out;
    if (std::chrono::steady_clock::now() < retryAt_ || !attach()) {
      return out;
    }
    bool scanned = false;
    unsigned gapScans = 0;
    while (out.applied < budget) {
      // A rebase settles what called for it: another one in this step
      // needs new evidence, a record dropped by a later scan or a gap (at
      // most kMaxGapScans of them).
      if (const auto need = rebaseNeeded()) {
        if (!rebase(*need, out)) {
          break;
        }
        scanned = false;
      }
      const Asic::LogVersion next = taken_ + 1;
      if (!pending_.empty() && pending_.front().logVersion == next) {
        if (!apply(pending_.front())) {
          break;
        }
        pending_.pop_front();
        taken_ = next;
        ++out.applied;
        continue;
      }
      if (pending_.empty()) {
        if (scanned || !mayHaveNew()) {
          break;
        }
        rescan();
        scanned = true;
        continue;
      }
      // A record above `next` was seen: `next` is a gap unless a scan that
      // starts now finds it. What the new scan misses is skipped only below
      // the highest version an earlier scan saw, and never where a record
      // may have been dropped as damaged: there the tables are rebuilt.
      if (gapScans == kMaxGapScans) {
        break;
      }
      const Asic::LogVersion seen = pending_.back().logVersion;
      rescan();
      scanned = true;
      ++gapScans;
      if (!pending_.empty() && pending_.front().logVersion > next) {
        if (next <= noSkipUpTo_) {
          damagedUpTo_ = std::max(damagedUpTo_, next);
          missing_ = next;
        } else {
          skip(next, std::min(pending_.front().logVersion, seen) - 1);
        }
      }
    }
    // Without a version published, the tables follow no log yet: the first
    // publication is that of a rebase.
    if (published_ && *published_ != taken_) {
      publish(out);
    }
    return out;
  }

  // Lets go of the change log when its file was removed or replaced (the
  // agent's store was deleted or made anew), so that the next step mounts
  // what is there now. Costs two stat calls: for idle moments.
  void checkSource() {
    if (log_ && log_->stale()) {
      event(FollowEvent::Kind::sourceLost,
            fmt::format("{}: the change log in {} was removed or replaced",
                        tableName(), agent_.directory()));
      detach();
    }
  }

private:
  // A gap costs a scan of the log; a step stops after this many.
  static constexpr unsigned kMaxGapScans = 8;
  // How soon a step looks again for a change log that is not there, or
  // that could not be read; and for an agent's change to complete.
  static constexpr auto kRetryMissing = std::chrono::milliseconds(50);
  static constexpr auto kRetryBroken = std::chrono::seconds(1);
  // A unit whose configuration cannot be read is tried again after
  // kRetryBroken, then after twice as long each time, up to this: every
  // failed read reports each damaged record it met again.
  static constexpr auto kRetryUnreadMost = std::chrono::seconds(32);

  // Why the tables must be rebuilt before the log can be followed on, and
  // the version the rebuilt tables must hold at least.
  struct RebaseNeed {
    std::string why;
    Asic::LogVersion atLeast = 0;
  };

  void event(FollowEvent::Kind kind, std::string text) {
    HW_TRACE(2, "{}", text);
    if (events_) {
      events_(FollowEvent{kind, std::move(text)});
    }
  }
  // Reports a problem of the agent's instance once, until it changes.
  void problem(FollowEvent::Kind kind, const std::string &text) {
    if (text != lastProblem_) {
      lastProblem_ = text;
      event(kind, text);
    }
  }
  // The next step does nothing before `pause` has passed.
  template <typename D> void retryAfter(D pause) {
    retryAt_ = std::chrono::steady_clock::now() + pause;
  }
  template <typename D> void stall(D pause) {
    stalled_ = true;
    retryAfter(pause);
  }
  // What held the follower up is over: a recurrence is reported again.
  void unstall() {
    stalled_ = false;
    unreadPause_ = kRetryBroken;
    lastProblem_.clear();
  }

  bool attach() {
    if (log_) {
      return true;
    }
    Fwk::Ptr<LogSlate> log;
    try {
      log = agent_.template entity<LogSlate>(logPath_);
    } catch (const Shm::Error &e) {
      problem(FollowEvent::Kind::problem,
              fmt::format("{}: cannot read the change log: {}", tableName(),
                          e.what()));
      agent_.forget(logPath_);
      retryAfter(kRetryBroken);
      return false;
    }
    if (!log) {
      problem(FollowEvent::Kind::waiting,
              fmt::format("{}: no change log in {} yet; waiting for it",
                          tableName(), agent_.directory()));
      retryAfter(kRetryMissing);
      return false;
    }
    const std::uint64_t id = sourceIdOf(*log);
    if (id == 0 || log->stale()) {
      agent_.forget(logPath_); // replaced meanwhile: mount the new one next
      return false;
    }
    log_ = log;
    sourceId_ = id;
    checkProgress();
    lastProblem_.clear();
    event(FollowEvent::Kind::following,
          fmt::format("{}: following the change log in {}", tableName(),
                      agent_.directory()));
    return true;
  }

  void detach() {
    log_ = nullptr;
    pending_.clear();
    scannedCommit_ = kNever;
    damagedUpTo_ = 0;
    noSkipUpTo_ = 0;
    missing_ = 0;
    stalled_ = false;
    unreadPause_ = kRetryBroken;
    agent_.forget(logPath_);
  }

  // Why the tables must be rebuilt before the log can be followed on;
  // nothing when they are in step with it.
  std::optional<RebaseNeed> rebaseNeeded() const {
    if (record_.sourceId == 0) {
      return RebaseNeed{"the tables follow no change log yet"};
    }
    if (record_.sourceId != sourceId_) {
      return RebaseNeed{"the change log is a new one"};
    }
    if (!published_) {
      return RebaseNeed{"the version published for it was lost"};
    }
    // The agent asks for a rebuild at a version of its own (its epoch) when
    // the tables may hold what its configuration does not know of: its log
    // went behind what was published, or it lost a unit's configuration.
    if (const Asic::LogVersion epoch = log_->entryLogConfig().control().epoch();
        epoch != record_.epoch) {
      return RebaseNeed{
          fmt::format("the agent asked for a rebuild at version {}", epoch),
          epoch};
    }
    const Asic::LogVersion reserved =
        log_->entryLogConfig().control().scratchpad();
    if (reserved < taken_) {
      return RebaseNeed{fmt::format("its versions went back from {} to {}",
                                    taken_, reserved)};
    }
    if (strayProgress_ != 0) {
      return RebaseNeed{fmt::format("the hardware tables took a change of "
                                    "version {} that is not the log's",
                                    strayProgress_),
                        *published_};
    }
    if (damagedUpTo_ > taken_) {
      // The same log on: the rebuilt tables must keep every change
      // published, and go past a version found missing below a later
      // record.
      return RebaseNeed{
          fmt::format("a damaged change-log record may hold a version "
                      "above {}",
                      taken_),
          std::max(*published_, missing_)};
    }
    return std::nullopt;
  }

  // Rebuilds every unit's table from the agent's configuration and goes on
  // from the last change the agent wrote whole. Publishes only when every
  // unit's table was rebuilt; otherwise the version taken, the follow record
  // and what is published stay as they were, and a later step tries again.
  bool rebase(const RebaseNeed &need, FollowStep &out) {
    const auto &control = log_->entryLogConfig().control();
    // The epoch first: a rebuild asked for after this read is done again.
    const Asic::LogVersion epoch = control.epoch();
    const Asic::LogVersion base =
        std::min(control.auxiliary(), control.scratchpad());
    if (base < need.atLeast) {
      problem(FollowEvent::Kind::waiting,
              fmt::format("{}: {}; the rebuild waits until the agent has "
                          "completed its change of version {}",
                          tableName(), need.why, need.atLeast));
      stall(kRetryMissing);
      return false;
    }
    std::vector<Asic::UnitId> units = agent_.units(configBase_);
    for (Asic::UnitId u : store_.template hwUnits<B>()) {
      if (std::find(units.begin(), units.end(), u) == units.end()) {
        units.push_back(u);
      }
    }
    for (Asic::UnitId u : units) {
      if (!resyncUnit(u, base)) {
        return false;
      }
    }
    if (log_->stale()) {
      // The configuration read may be that of another agent store.
      checkSource();
      return false;
    }
    taken_ = base;
    pending_.clear();
    scannedCommit_ = kNever;
    damagedUpTo_ = 0;
    missing_ = 0;
    strayProgress_ = 0;
    record_.sourceId = sourceId_;
    record_.epoch = epoch;
    ++record_.resyncs;
    ++run_.resyncs;
    publish(out);
    unstall();
    event(FollowEvent::Kind::resync,
          fmt::format("{}: {}; {} unit table(s) rebuilt from the agent's "
                      "configuration, following from version {}",
                      tableName(), need.why, units.size(), base));
    return true;
  }

  // Makes the unit's hardware table hold the unit's committed entries (and
  // clears its wiped flag). Keys the configuration does not hold are
  // removed first, so that the writes fit; the keys that do not fit are
  // recorded as refused by the rebuild, covering every change up to
  // `through` (the changes the rebuild takes). A configuration that cannot
  // be read leaves the table as it is: reported, retried after a pause,
  // false; so does a refusal that cannot be recorded.
  bool resyncUnit(Asic::UnitId unit, Asic::LogVersion through) {
    const std::string path = B::Constants::configSlatePath(unit);
    std::vector<LogEntry> live;
    std::string failure;
    try {
      auto cfg = agent_.template entity<ConfigSlate>(path);
      if (!cfg && log_->stale()) {
        // No file because there is no store: nothing was read.
        failure = "the agent's store was removed or replaced";
      } else if (cfg) {
        const RecordsRead read = readRecords(
            cfg->swTableEntries(), true, [&] { live.clear(); },
            [&](const ConfigEntry &r) {
              if (!r.isDeleted) {
                live.push_back(r.logEntry);
              }
            });
        if (!read) {
          failure =
              fmt::format("gave up after {} damaged records", read.dropped);
        }
      }
    } catch (const Shm::Error &e) {
      failure = e.what();
    }
    agent_.forget(path); // a configuration table is big; needed only here
    if (!failure.empty()) {
      problem(FollowEvent::Kind::problem,
              fmt::format("{} unit {}: configuration not read, hardware table "
                          "left as it is until it can be: {}",
                          tableName(), unit, failure));
      stall(unreadPause_);
      unreadPause_ = std::min<std::chrono::milliseconds>(2 * unreadPause_,
                                                         kRetryUnreadMost);
      return false;
    }
    const auto less = [](const LogEntry &a, const LogEntry &b) {
      return std::memcmp(&a.key, &b.key, sizeof(Key)) < 0;
    };
    std::sort(live.begin(), live.end(), less);
    auto table = store_.template hwTable<B>(unit);
    auto &hw = table->hwEntries();
    hw.control().scratchpadIs(0); // no change is known to be applied
    for (auto k = hw.firstKey(); k; k = hw.nextKey(*k)) {
      LogEntry probe{};
      probe.key = *k;
      if (!std::binary_search(live.begin(), live.end(), probe, less)) {
        hw.erase(*k);
      }
    }
    store_.refusals().refusalDelUnit(tableId_.packed(), unit);
    for (const LogEntry &e : live) {
      if (!write(hw, unit, e, through, true)) {
        return false;
      }
    }
    hw.control().clearWiped();
    HW_TRACE(3, "{} unit {}: {} entries from the configuration", tableName(),
             unit, live.size());
    return true;
  }

  // Whether the log may hold records the last scan did not see.
  bool mayHaveNew() const {
    const auto &control = log_->entryLogConfig().control();
    const Asic::LogVersion reserved = control.scratchpad();
    return reserved > taken_ && (control.commitSequence() != scannedCommit_ ||
                                 reserved != scannedReserved_);
  }

  // Reads the records above the version taken, by version. Records it drops
  // as damaged held versions up to the last one reserved after it.
  void rescan() {
    auto &coll = log_->entryLogConfig();
    scannedReserved_ = coll.control().scratchpad();
    scannedCommit_ = coll.control().commitSequence();
    std::vector<LogRecord> found;
    const RecordsRead read = readRecords(
        coll, false, [&] { found.clear(); },
        [&](const LogRecord &r) {
          if (r.logVersion > taken_) {
            found.push_back(r);
          }
        });
    if (read.dropped > 0) {
      const Asic::LogVersion upTo = coll.control().scratchpad();
      damagedUpTo_ = std::max(damagedUpTo_, upTo);
      noSkipUpTo_ = std::max(noSkipUpTo_, upTo);
    }
    const auto byVersion = [](const LogRecord &a, const LogRecord &b) {
      return a.logVersion < b.logVersion;
    };
    std::sort(found.begin(), found.end(), byVersion);
    found.erase(std::unique(found.begin(), found.end(),
                            [](const LogRecord &a, const LogRecord &b) {
                              return a.logVersion == b.logVersion;
                            }),
                found.end());
    pending_.assign(found.begin(), found.end());
    HW_TRACE(9, "{}: scan found {} records above {} ({} dropped)", tableName(),
             found.size(), taken_, read.dropped);
  }

  void skip(Asic::LogVersion first, Asic::LogVersion last) {
    const std::uint64_t n = last - first + 1;
    record_.gapsSkipped += n;
    run_.gapsSkipped += n;
    taken_ = last;
    event(FollowEvent::Kind::gapSkipped,
          first == last
              ? fmt::format("{}: version {} was reserved and never used; "
                            "skipped",
                            tableName(), first)
              : fmt::format("{}: versions {}-{} were reserved and never "
                            "used; skipped",
                            tableName(), first, last));
  }

  // False when the change could not be applied: its unit's table was found
  // wiped and its configuration could not be read (retried later).
  bool apply(const LogRecord &r) {
    bool wiped = false;
    auto table = store_.template hwTable<B>(r.unitId, &wiped);
    if (wiped) {
      // The changes up to the version taken were in the lost table; the
      // rebuild takes them again, and this one and later are applied on.
      if (!resyncUnit(r.unitId, taken_)) {
        return false;
      }
      unstall();
      ++record_.resyncs;
      ++run_.resyncs;
      event(FollowEvent::Kind::resync,
            fmt::format("{} unit {}: the hardware table was lost; rebuilt "
                        "from the agent's configuration",
                        tableName(), r.unitId));
    }
    auto &hw = table->hwEntries();
    if (r.logVersion <= hw.control().scratchpad()) {
      // Applied by a writer stopped before it published the version: the
      // table holds it and what came after it in this unit.
      ++record_.changesApplied; // that writer's count was never published
      HW_TRACE(9, "{}: version {} unit {} is in the table already", tableName(),
               r.logVersion, r.unitId);
      return true;
    }
    if (r.isTableDelete()) {
      for (auto k = hw.firstKey(); k; k = hw.nextKey(*k)) {
        hw.erase(*k);
      }
      store_.refusals().refusalDelUnit(tableId_.packed(), r.unitId);
    } else if (r.isEntryDelete()) {
      hw.erase(r.logEntry.key);
      store_.refusals().refusalDel(refusalKey(r.unitId, r.logEntry.key));
    } else if (!write(hw, r.unitId, r.logEntry, r.logVersion, false)) {
      return false;
    }
    if (stalled_) {
      unstall(); // what held it up is over
    }
    hw.control().auxiliaryIs(identityOf(r));
    hw.control().scratchpadIs(r.logVersion);
    ++record_.changesApplied;
    ++run_.changesApplied;
    HW_TRACE(9, "{}: applied version {} unit {} deleteBits {} {}", tableName(),
             r.logVersion, r.unitId, r.deleteBits, r.logEntry);
    return true;
  }

  // What a unit's table keeps of the last change it took (see "Progress
  // per table" at the top of the file).
  static std::uint64_t identityOf(const LogRecord &r) noexcept {
    return Fwk::hashBytes64(&r, sizeof r, 0x6c6f67u);
  }

  // Sets strayProgress_ to the highest version a unit's table took beyond
  // the one published that is not, or cannot be shown to be, the log's
  // change of that version (0: none).
  void checkProgress() {
    strayProgress_ = 0;
    const Asic::LogVersion published = published_.value_or(0);
    for (Asic::UnitId u : store_.template hwUnits<B>()) {
      const auto &control =
          store_.template hwTable<B>(u)->hwEntries().control();
      const Asic::LogVersion took = control.scratchpad();
      if (took <= published) {
        continue;
      }
      LogRecord r{};
      bool same = false;
      try {
        same = log_->entryLogConfig().find(took, r) && r.unitId == u &&
               identityOf(r) == control.auxiliary();
      } catch (const Shm::CorruptionError &) {
        // Proves nothing; the scans drop it.
      }
      if (!same) {
        strayProgress_ = std::max(strayProgress_, took);
      }
    }
  }

  Asic::HwRefusalKey refusalKey(Asic::UnitId unit, const Key &key) const {
    Asic::HwRefusalKey k;
    k.tableId = tableId_.packed();
    k.unit = unit;
    k.key = key.packed();
    return k;
  }

  // Puts the entry in the unit's table, or records that the table refused
  // it: the change of `version`, or with `byRebuild` every change up to
  // `version`. False when the refusal could not be recorded: nothing the
  // agent could be told is in the tables then, and the step stops.
  template <typename Coll>
  bool write(Coll &hw, Asic::UnitId unit, const LogEntry &e,
             Asic::LogVersion version, bool byRebuild) {
    const Asic::HwRefusalKey at = refusalKey(unit, e.key);
    try {
      hw.insert(e);
      store_.refusals().refusalDel(at);
      return true;
    } catch (const Shm::CollectionFullError &) {
    }
    try {
      store_.refusals().refusalIs(at, version, Asic::HwRefusal::tableFull,
                                  byRebuild);
    } catch (const Shm::CollectionFullError &) {
      problem(FollowEvent::Kind::problem,
              fmt::format("{} unit {}: hardware table full and no room to "
                          "record what it refused; waiting for room",
                          tableName(), unit));
      stall(kRetryBroken);
      return false;
    }
    ++record_.tableFullReports;
    ++run_.tableFullReports;
    event(FollowEvent::Kind::tableFull,
          fmt::format("{} unit {}: hardware table full ({} entries); write "
                      "of label {} qualifier {} refused ({})",
                      tableName(), unit, hw.capacity(), e.key.label,
                      e.key.qualifier,
                      byRebuild ? fmt::format("rebuild at version {}", version)
                                : fmt::format("version {}", version)));
    return true;
  }

  void publish(FollowStep &out) {
    store_.publish(tableId_, taken_, record_);
    published_ = taken_;
    out.published = true;
  }

  static constexpr std::uint64_t kNever = ~std::uint64_t{0};

  InstanceView &agent_;
  HwStore &store_;
  FollowEventFn events_;
  const Asic::SwTableId tableId_{B::Constants::swTableTypeId};
  const std::string logPath_;
  const std::string configBase_;

  Fwk::Ptr<LogSlate> log_;
  std::uint64_t sourceId_ = 0; // of log_
  FollowRecord record_;
  Asic::LogVersion taken_ = 0;
  std::optional<Asic::LogVersion> published_;
  // Records above taken_ found by the last scan, by version. Log records
  // never change once written and the agent retires only published ones,
  // so they stay valid until applied.
  std::deque<LogRecord> pending_;
  std::uint64_t scannedCommit_ = kNever;
  Asic::LogVersion scannedReserved_ = 0;
  // Records of log_ that scans dropped as damaged held versions up to
  // damagedUpTo_ (0: none since the last rebase; a rebase is due while it is
  // above taken_). No version up to noSkipUpTo_ is skipped as unused;
  // missing_ is one found missing below a later record (0: none).
  Asic::LogVersion damagedUpTo_ = 0;
  Asic::LogVersion noSkipUpTo_ = 0;
  Asic::LogVersion missing_ = 0;
  // Set when the log was attached (checkProgress); a rebase clears it.
  Asic::LogVersion strayProgress_ = 0;
  bool stalled_ = false;
  std::chrono::milliseconds unreadPause_ = kRetryBroken;
  FollowCounters run_;
  std::string lastProblem_;
  std::chrono::steady_clock::time_point retryAt_{};
};

} // namespace MicaMplsHw

#undef HW_TRACE
