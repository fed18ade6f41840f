#include "tools/mpls-agent/Agent.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <system_error>

#include "MicaMpls/MplsIsem2Interface.h"
#include "MicaMpls/MplsLemInterface.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/asic/SwTableStatsSlate.h"
#include "platform/eventloop/Loop.h"
#include "platform/resource/InLifResourceTable.h"
#include "platform/resource/L2AdjToFecResourceTable.h"
#include "platform/shm/Store.h"
#include "platform/statedb/EntityManager.h"
#include "tools/hw/AgentNotify.h"
#include "tools/hw/HwStore.h"
#include "tools/mpls-agent/Endpoint.h"
#include "tools/mpls-agent/Inspect.h"
#include "tools/mpls-agent/Output.h"
#include "tools/mpls-agent/Summary.h"

namespace MplsAgent {

namespace {

using Isem2 = MicaMpls::MplsIsem2Binding;
using Lem = MicaMpls::MplsLemBinding;
using Clock = std::chrono::steady_clock;
using Json = MplsShow::Json;
using Handle = Asic::OrderedSwTable::EntryHandle;

// The MicaMpls group's agent-and-group id.
constexpr std::uint16_t kAgentGroupId = 0x0a08;
// How often the status line is redrawn, and plain progress lines printed.
constexpr auto kStatusEvery = std::chrono::milliseconds(250);
constexpr auto kPlainEvery = std::chrono::seconds(2);
// Silence from the hardware writer worth a message (or half the confirm
// timeout, when that is shorter), and how often it is repeated.
constexpr auto kWaitNotice = std::chrono::seconds(5);
// A suspended resolver is looked at again this often.
constexpr auto kBackPressureRetry = std::chrono::milliseconds(5);
constexpr auto kRateTick = std::chrono::milliseconds(10);
constexpr auto kStatsEvery = std::chrono::seconds(1);
// Failures kept with their key; the others are only counted by reason.
constexpr std::size_t kFailuresKept = 20;

std::string unitsText(const std::vector<Asic::UnitId> &units) {
  return units.empty() ? std::string("none")
                       : fmt::format("{}", fmt::join(units, ","));
}

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

template <typename B>
typename B::Entry entryOf(const EntryKey &k, const EntryValue &v) {
  if constexpr (std::is_same_v<B, Isem2>) {
    return isem2Entry(k, v);
  } else {
    return lemEntry(k, v);
  }
}

// What the agent did to one table of one unit.
struct UnitCounts {
  std::uint64_t restored = 0;
  std::uint64_t writes = 0;
  std::uint64_t removes = 0;
  std::uint64_t confirmed = 0; // finished after the hardware took them
  std::uint64_t unchanged = 0; // finished at commit: nothing for the hardware
  std::uint64_t failed = 0;
  std::uint64_t swept = 0;
  std::uint64_t reconciled = 0; // entries cleared with the unit
};

template <typename B> struct Family {
  Fwk::Ptr<typename B::Interface> intf;
  std::map<Asic::UnitId, Fwk::Ptr<typename B::SwTable>> tables;
};

class Host {
public:
  Host(const Options &opt, DesiredSet desired)
      : opt_(opt), desired_(std::move(desired)) {}
  ~Host();
  Host(const Host &) = delete;
  Host &operator=(const Host &) = delete;

  int run();

private:
  template <typename B> Family<B> &family() {
    if constexpr (std::is_same_v<B, Isem2>) {
      return isem2_;
    } else {
      return lem_;
    }
  }

  void setupSignals();
  void onSignals();
  void boot();
  template <typename B> void makeTables();
  template <typename B> void reconcile();
  void openProgressFifo();
  void openEndpoint();
  Json desiredOf(const std::string &table, Asic::UnitId unit,
                 std::uint32_t label, std::uint8_t qualifier) const;
  void syncInLifData();

  void startReplay();
  void scheduleWrites();
  void writeBatch();
  void issue(const Change &c);
  template <typename B> void issueOn(const Change &c);
  void onResponse(const EntryKey &key, const EntryValue &value, Change::Op op,
                  Clock::time_point t0, const Handle &h);
  std::string failureReason(const EntryKey &key, const EntryValue &value,
                            Change::Op op) const;
  void queueDrained();
  template <typename B> void countUnmarked();

  void onFifo();
  void forwardHwProgress();
  void hwProgress();
  std::uint64_t unconfirmed() const;
  std::uint64_t forHardware() const;
  std::uint64_t failedTotal() const;
  void burstStarts();
  void burstEnds();
  void checkDone();
  void reload();
  void tick();
  std::string statusText();
  void publishStats();
  void finish(int code, const std::string &outcome);
  Json summary() const;
  template <typename B> void summaryRows(Json &rows) const;

  Options opt_;
  DesiredSet desired_;
  Output out_;

  Evt::Loop::Ptr loop_;
  int sigFd_ = -1;
  int fifoFd_ = -1;
  Evt::Watch sigWatch_;
  Evt::Watch fifoWatch_;
  Evt::Timer tickTimer_;
  Evt::Timer statsTimer_;
  Evt::Timer writeTimer_;

  Fwk::Ptr<Shm::EntityManager> shm_;
  Fwk::Ptr<StateDb::EntityManager> stateDb_;
  Fwk::Ptr<Asic::OrderedTableInterface> otIntf_;
  Fwk::Ptr<Asic::GroupInterface> group_;
  Fwk::Ptr<MicaTunnelNiLib::InLifResourceTable> inLif_;
  Fwk::Ptr<MicaAdjLib::L2AdjToFecResourceTableResourceTable> adj_;
  Family<Isem2> isem2_;
  Family<Lem> lem_;
  Fwk::Ptr<Asic::SwTableStatsSlate> statsSlate_;
  // Destroyed after the tables (it reads them; ~Host).
  std::unique_ptr<Inspector> inspector_;
  std::unique_ptr<Endpoint> endpoint_;

  // The changes to write, oldest first; next_ is the first not yet written.
  std::deque<Change> queue_;
  std::size_t next_ = 0;
  bool writeScheduled_ = false;
  double tokens_ = 0;
  Clock::time_point lastRefill_;

  bool replayDone_ = false; // the first replay ended (swept)
  bool reloadPending_ = false;
  bool doneAnnounced_ = false;
  bool finished_ = false;
  bool inHwProgress_ = false;
  int exitCode_ = kExitOk;
  std::string outcome_;

  std::uint64_t outstanding_ = 0; // changes whose handler has not run
  std::map<std::pair<TableKind, Asic::UnitId>, UnitCounts> counts_;
  std::vector<double> latenciesUs_;
  std::uint32_t sweptTotal_ = 0;
  std::size_t resourcesRestored_ = 0;
  std::size_t resourcesReleased_ = 0;
  std::uint32_t reloads_ = 0;
  std::vector<Json> failures_;
  std::map<std::string, std::uint64_t> failureReasons_;

  Clock::time_point started_;
  Clock::time_point burstStart_{};
  Clock::duration busy_{};
  Clock::time_point lastProgress_;
  Clock::time_point lastWaitNotice_{};
  Clock::time_point lastPlain_{};
  Clock::time_point lastRateAt_{};
  std::uint64_t lastRateCount_ = 0;
  double rate_ = 0;
};

Host::~Host() {
  // Tables and interfaces go first, then the store: as a process exit. The
  // endpoint stops answering before anything it reads goes; the inspector
  // (whose view of the hardware writer's instance shares the process's
  // read handle with the group interface) goes after the group.
  endpoint_.reset();
  sigWatch_.cancel();
  fifoWatch_.cancel();
  isem2_.tables.clear();
  lem_.tables.clear();
  if (isem2_.intf) {
    isem2_.intf->onDelete();
  }
  if (lem_.intf) {
    lem_.intf->onDelete();
  }
  isem2_.intf = nullptr;
  lem_.intf = nullptr;
  statsSlate_ = nullptr;
  inLif_ = nullptr;
  adj_ = nullptr;
  group_ = nullptr;
  otIntf_ = nullptr;
  inspector_.reset();
  stateDb_ = nullptr;
  if (shm_) {
    shm_->close();
  }
  if (fifoFd_ >= 0) {
    ::close(fifoFd_);
  }
  if (sigFd_ >= 0) {
    ::close(sigFd_);
  }
}

int Host::run() {
  started_ = Clock::now();
  loop_ = Evt::Loop::create();
  setupSignals();
  try {
    boot();
  } catch (const Shm::LockedError &e) {
    out_.line(fmt::format("the store of agent {} is held by another running "
                          "agent: {}",
                          opt_.agent, e.what()));
    return kExitLocked;
  }
  tickTimer_ = loop_->periodicIs(kStatusEvery, [this] { tick(); });
  statsTimer_ = loop_->periodicIs(kStatsEvery, [this] { publishStats(); });
  loop_->defer([this] { startReplay(); });
  loop_->run();
  return exitCode_;
}

// SIGINT, SIGTERM and SIGHUP are blocked and read from a signalfd on the
// loop, so that their work runs as ordinary loop callbacks.
void Host::setupSignals() {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGHUP);
  if (::sigprocmask(SIG_BLOCK, &mask, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "sigprocmask");
  }
  sigFd_ = ::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
  if (sigFd_ < 0) {
    throw std::system_error(errno, std::generic_category(), "signalfd");
  }
  sigWatch_ = loop_->watchIs(sigFd_, [this] { onSignals(); });
}

void Host::onSignals() {
  signalfd_siginfo si{};
  while (::read(sigFd_, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
    if (si.ssi_signo == SIGHUP) {
      reload();
      continue;
    }
    const char *name = si.ssi_signo == SIGINT ? "SIGINT" : "SIGTERM";
    // Not yet written, or written and not yet confirmed.
    const std::uint64_t left = unconfirmed() + (queue_.size() - next_);
    const bool clean = left == 0 && outstanding_ == 0 && replayDone_;
    finish(clean && failureReasons_.empty() ? kExitOk : kExitFailed,
           clean ? fmt::format("stopped by {}", name)
                 : fmt::format("stopped by {} with {} changes unconfirmed",
                               name, left));
  }
}

void Host::boot() {
  // The writer lock first: a second agent is refused before it changes
  // anything.
  shm_ = Shm::entityManager(opt_.agent, 0);
  stateDb_ = StateDb::entityManagerIs(opt_.agent, 0);
  Evt::Loop *loop = loop_.ptr();
  const auto defer = [loop](std::function<void()> task) {
    loop->defer(std::move(task));
  };
  otIntf_ = Fwk::make<Asic::OrderedTableInterface>(stateDb_, defer);
  otIntf_->hwWriterIs(MicaMplsHw::hwInstanceName(opt_.agent), 0);
  group_ = otIntf_->makeGroupIntf(kAgentGroupId, MicaMplsHw::kGroup);
  using Name = Asic::CanonicalTableName;
  inLif_ = Fwk::make<MicaTunnelNiLib::InLifResourceTable>(
      Name::canonicalTableNameIs(Name::resourceTable, Isem2::kResourceNamespace,
                                 Isem2::kResourceName));
  adj_ = Fwk::make<MicaAdjLib::L2AdjToFecResourceTableResourceTable>(
      Name::canonicalTableNameIs(Name::resourceTable, Lem::kResourceNamespace,
                                 Lem::kResourceName));
  inLif_->storeIs(shm_);
  adj_->storeIs(shm_);
  inLif_->schedulerIs(defer);
  adj_->schedulerIs(defer);
  group_->namedTableIs(inLif_);
  group_->namedTableIs(adj_);
  resourcesRestored_ = inLif_->restored() + adj_->restored();
  for (std::uint32_t id : opt_.holdAdjacencies) {
    adj_->holdIs({id});
  }
  for (std::uint32_t id : opt_.holdInLifs) {
    inLif_->holdIs(inLifKey(id));
  }
  isem2_.intf = MicaMpls::MplsIsem2Interface::getIntf(otIntf_);
  lem_.intf = MicaMpls::MplsLemInterface::getIntf(otIntf_);
  statsSlate_ = Asic::mountSwTableStatsSlate(shm_, MicaMplsHw::kGroup);
  openProgressFifo();
  if (opt_.inspect) {
    openEndpoint();
  }

  makeTables<Isem2>();
  makeTables<Lem>();
  reconcile<Isem2>();
  reconcile<Lem>();
  syncInLifData();

  std::uint64_t restored = 0, reconciled = 0;
  std::vector<std::string> cleared;
  for (const auto &[at, c] : counts_) {
    restored += c.restored;
    reconciled += c.reconciled;
    if (c.reconciled != 0) {
      cleared.push_back(
          fmt::format("{} unit {}", tableName(at.first), at.second));
    }
  }
  out_.line(fmt::format(
      "booted on {}: units {}; restored {} entries and {} resource "
      "allocations{}",
      shm_->directory(), unitsText(opt_.units), restored, resourcesRestored_,
      cleared.empty() ? std::string()
                      : fmt::format("; reconciled {} ({} entries cleared)",
                                    fmt::join(cleared, ", "), reconciled)));
  // The hardware may have moved on while no agent was running.
  hwProgress();
}

template <typename B> void Host::makeTables() {
  auto &fam = family<B>();
  for (Asic::UnitId u : opt_.units) {
    auto table = fam.intf->makeSwTable(u, nullptr, false);
    counts_[{kindOf<B>(), u}].restored = table->entrys();
    fam.tables[u] = table;
  }
}

// Clears the units the store holds and the agent no longer drives; the
// entries cleared are those the clear marked deleted.
template <typename B> void Host::reconcile() {
  auto &fam = family<B>();
  fam.intf->reconcile();
  for (const auto &t : fam.intf->swTableSet()->swTableList()) {
    if (!fam.tables.contains(t->unitId())) {
      counts_[{kindOf<B>(), t->unitId()}].reconciled =
          fam.intf->entryLog()->entrysInDeletion(t->unitId());
    }
  }
}

// The FIFO the hardware writer puts a byte in after each publication. Opened
// read-write so that it never reads as end-of-file when no writer has it
// open.
void Host::openProgressFifo() {
  const std::string path = MicaMplsHw::progressFifoPath(opt_.agent);
  if (::mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(),
                            "cannot make the FIFO " + path);
  }
  fifoFd_ = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  struct stat st {};
  if (fifoFd_ < 0 || ::fstat(fifoFd_, &st) != 0 || !S_ISFIFO(st.st_mode)) {
    throw std::system_error(errno ? errno : EINVAL, std::generic_category(),
                            path + " is not a FIFO the agent can read");
  }
  fifoWatch_ = loop_->watchIs(fifoFd_, [this] { onFifo(); });
}

// The inspection endpoint in the instance directory. An agent that cannot
// make it (a directory path too long for a socket) runs without it.
void Host::openEndpoint() {
  InspectTargets t;
  t.agent = opt_.agent;
  t.group = group_.ptr();
  t.isem2 = isem2_.intf.ptr();
  t.lem = lem_.intf.ptr();
  t.inLifs = inLif_.ptr();
  t.adjacencies = adj_.ptr();
  t.desired = [this](const std::string &table, Asic::UnitId unit,
                     std::uint32_t label, std::uint8_t qualifier) {
    return desiredOf(table, unit, label, qualifier);
  };
  t.progress = [this] {
    std::uint64_t done = 0, failed = 0;
    for (const auto &[at, c] : counts_) {
      done += c.confirmed + c.unchanged + c.failed;
      failed += c.failed;
    }
    return Json{{"toWrite", queue_.size() - next_},
                {"written", next_},
                {"finished", done},
                {"failed", failed},
                {"outstanding", outstanding_},
                {"replayDone", replayDone_}};
  };
  inspector_ = std::make_unique<Inspector>(std::move(t));
  try {
    endpoint_ = std::make_unique<Endpoint>(
        *loop_, shm_->directory() + "/.inspect",
        [this](const Json &req) { return inspector_->answer(req); });
  } catch (const std::system_error &e) {
    out_.line(fmt::format("no inspection endpoint: {}", e.what()));
  }
}

Json Host::desiredOf(const std::string &table, Asic::UnitId unit,
                     std::uint32_t label, std::uint8_t qualifier) const {
  EntryKey k;
  k.table = table == "isem2" ? TableKind::isem2 : TableKind::lem;
  k.unit = unit;
  k.label = label;
  k.qualifier = qualifier;
  const auto it = desired_.entries().find(k);
  if (it == desired_.entries().end()) {
    return false;
  }
  const EntryValue &v = it->second.value;
  if (k.table == TableKind::isem2) {
    return Json{{"inLif", v.resource}, {"data", v.data}};
  }
  return Json{{"l2AdjId", v.resource}};
}

// An in-LIF keeps the client data it was allocated with. When the desired
// set gives an in-LIF in use other data, the in-LIF is updated, so that what
// it was programmed with and what its entries carry agree.
void Host::syncInLifData() {
  std::size_t updated = 0;
  for (const auto &[id, data] : desired_.inLifData()) {
    const auto key = inLifKey(id);
    const auto h = inLif_->entry(key);
    const auto want = inLifClientData(data);
    if (!h ||
        h->entryState() !=
            static_cast<std::uint8_t>(Asic::EntryState::finished) ||
        h->data().clientData == want) {
      continue;
    }
    MicaTunnelNiLib::InLifData d = h->data();
    d.clientData = want;
    inLif_->updateIs(key, d);
    ++updated;
  }
  if (updated != 0) {
    out_.line(fmt::format("{} in-LIFs in use take new data", updated));
  }
}

void Host::startReplay() {
  queue_.clear();
  next_ = 0;
  for (Change &c : writesOf(desired_)) {
    queue_.push_back(c);
  }
  out_.line(fmt::format("replaying {} desired entries{}", queue_.size(),
                        opt_.rate > 0
                            ? fmt::format(" at {} changes/s", opt_.rate)
                            : std::string()));
  lastProgress_ = Clock::now();
  lastRateAt_ = lastProgress_;
  burstStarts();
  if (queue_.empty()) {
    queueDrained();
  } else {
    scheduleWrites();
  }
}

void Host::scheduleWrites() {
  if (writeScheduled_ || finished_ || next_ >= queue_.size()) {
    return;
  }
  writeScheduled_ = true;
  const auto go = [this] {
    writeScheduled_ = false;
    writeBatch();
  };
  if (opt_.rate > 0) {
    writeTimer_ = loop_->timerIs(kRateTick, go);
  } else {
    loop_->defer(go);
  }
}

// Writes one batch. Each batch ends the loop turn, so that resolver passes,
// allocations and the hardware's progress run between batches.
void Host::writeBatch() {
  if (finished_) {
    return;
  }
  if (group_->groupResolver()->suspended()) {
    writeScheduled_ = true;
    writeTimer_ = loop_->timerIs(kBackPressureRetry, [this] {
      writeScheduled_ = false;
      writeBatch();
    });
    return;
  }
  std::size_t budget = opt_.batch;
  if (opt_.rate > 0) {
    const auto now = Clock::now();
    if (lastRefill_ == Clock::time_point{}) {
      lastRefill_ = now;
    }
    // At most a tenth of a second's worth in reserve.
    tokens_ = std::min(tokens_ + opt_.rate * seconds(now - lastRefill_),
                       std::max(1.0, opt_.rate / 10));
    lastRefill_ = now;
    budget = std::min(budget, static_cast<std::size_t>(tokens_));
    tokens_ -= static_cast<double>(budget);
  }
  for (; budget > 0 && next_ < queue_.size(); --budget) {
    issue(queue_[next_++]);
  }
  if (next_ < queue_.size()) {
    scheduleWrites();
  } else {
    queueDrained();
  }
}

void Host::issue(const Change &c) {
  if (c.key.table == TableKind::isem2) {
    issueOn<Isem2>(c);
  } else {
    issueOn<Lem>(c);
  }
}

template <typename B> void Host::issueOn(const Change &c) {
  auto &table = family<B>().tables.at(c.key.unit);
  auto handler = [this, key = c.key, value = c.value, op = c.op,
                  t0 = Clock::now()](const Fwk::Ptr<const Handle> &h) {
    onResponse(key, value, op, t0, *h);
  };
  const typename B::Key key(c.key.label, c.key.qualifier);
  auto &counts = counts_[{c.key.table, c.key.unit}];
  if (c.op == Change::Op::write) {
    ++counts.writes;
    table->entryWriteWithResponseHandler(key, entryOf<B>(c.key, c.value),
                                         nullptr, handler);
  } else {
    ++counts.removes;
    table->entryRemoveWithResponseHandler(key, nullptr, handler);
  }
  ++outstanding_;
}

void Host::onResponse(const EntryKey &key, const EntryValue &value,
                      Change::Op op, Clock::time_point t0, const Handle &h) {
  --outstanding_;
  const auto now = Clock::now();
  auto &counts = counts_[{key.table, key.unit}];
  if (h.entryState() == Asic::EntryState::finished) {
    if (inHwProgress_) {
      // Finished by the hardware's progress: the hardware took it.
      ++counts.confirmed;
      latenciesUs_.push_back(
          std::chrono::duration<double, std::micro>(now - t0).count());
    } else {
      ++counts.unchanged;
    }
  } else {
    ++counts.failed;
    const std::string reason = failureReason(key, value, op);
    ++failureReasons_[reason];
    if (failures_.size() < kFailuresKept) {
      failures_.push_back({{"table", tableName(key.table)},
                           {"unit", key.unit},
                           {"label", key.label},
                           {"qualifier", key.qualifier},
                           {"op", op == Change::Op::write ? "write" : "remove"},
                           {"reason", reason}});
    }
  }
  if (outstanding_ == 0) {
    loop_->defer([this] { checkDone(); });
  }
}

// Why a change failed, from what the library left behind: its resource, or
// the entry log's refusals.
std::string Host::failureReason(const EntryKey &key, const EntryValue &value,
                                Change::Op op) const {
  constexpr auto kFailed = static_cast<std::uint8_t>(Asic::EntryState::failed);
  if (op == Change::Op::write) {
    const bool isem2 = key.table == TableKind::isem2;
    const Asic::SwTableId tableId{isem2 ? Isem2::Constants::swTableTypeId
                                        : Lem::Constants::swTableTypeId};
    const std::uint64_t packed =
        isem2 ? Isem2::Key(key.label, key.qualifier).packed()
              : Lem::Key(key.label, key.qualifier).packed();
    if (const auto *r = group_->hwRefusal(tableId, key.unit, packed)) {
      return fmt::format("refused by the hardware: {}",
                         Asic::hwRefusalText(r->reason));
    }
  }
  if (op == Change::Op::write && key.table == TableKind::isem2) {
    const auto h = inLif_->entry(inLifKey(value.resource));
    if (!h || h->entryState() == kFailed) {
      return fmt::format("in-LIF could not be allocated ({} of {} in use)",
                         inLif_->allocator().inUse(), inLif_->capacity());
    }
  } else if (op == Change::Op::write) {
    const auto h = adj_->entry({value.resource});
    if (!h || h->entryState() == kFailed) {
      return fmt::format("no FEC for the adjacency ({} of {} in use)",
                         adj_->allocator().inUse(), adj_->capacity());
    }
  }
  const auto refused = [&](const auto &fam) {
    const auto it = fam.tables.find(key.unit);
    return it != fam.tables.end() && it->second->stats()->logRefusedCnt() > 0;
  };
  if (key.table == TableKind::isem2 ? refused(isem2_) : refused(lem_)) {
    return "no room in the entry log";
  }
  return "refused by the table";
}

template <typename B> void Host::countUnmarked() {
  for (auto &[unit, table] : family<B>().tables) {
    std::uint64_t n = 0;
    for (auto it = table->entryIteratorConst(); !it.done(); ++it) {
      n += table->markedKey(it.entry().key) ? 0 : 1;
    }
    counts_[{kindOf<B>(), unit}].swept = n;
  }
}

// Every queued change is written. After the first replay, what was not
// written again is swept and unclaimed resources are freed.
void Host::queueDrained() {
  if (!replayDone_) {
    countUnmarked<Isem2>();
    countUnmarked<Lem>();
    sweptTotal_ = otIntf_->finishInitialReplay(&resourcesReleased_);
    replayDone_ = true;
    out_.line(fmt::format("replay written: {} entries; swept {} not replayed, "
                          "released {} unclaimed resources",
                          queue_.size(), sweptTotal_, resourcesReleased_));
    if (reloadPending_) {
      reloadPending_ = false;
      reload();
    }
  }
  loop_->defer([this] { checkDone(); });
}

void Host::onFifo() {
  char buf[512];
  while (::read(fifoFd_, buf, sizeof buf) > 0) {
  }
  hwProgress();
}

// Hands the hardware writer's versions to every table; the handlers that
// run meanwhile belong to changes the hardware took.
void Host::forwardHwProgress() {
  inHwProgress_ = true;
  std::size_t moved = 0;
  try {
    moved = group_->hwProgress();
  } catch (...) {
    inHwProgress_ = false;
    throw;
  }
  inHwProgress_ = false;
  if (moved != 0) {
    lastProgress_ = Clock::now();
  }
}

void Host::hwProgress() {
  forwardHwProgress();
  checkDone();
}

// Changes not confirmed yet: those still in the resolver, and the versions
// this agent logged beyond what the hardware writer has taken.
std::uint64_t Host::unconfirmed() const {
  return group_->groupResolver()->resolverQueueSize() + forHardware();
}

// Versions logged beyond what the hardware writer has taken.
std::uint64_t Host::forHardware() const {
  std::uint64_t n = 0;
  for (std::uint32_t id :
       {Isem2::Constants::swTableTypeId, Lem::Constants::swTableTypeId}) {
    const Asic::SwTableId tableId(id);
    const Asic::LogVersion logged = group_->loggedVersion(tableId);
    const Asic::LogVersion hw = group_->hwTableVersion(tableId).value_or(0);
    n += logged > hw ? logged - hw : 0;
  }
  return n;
}

std::uint64_t Host::failedTotal() const {
  std::uint64_t n = 0;
  for (const auto &[at, c] : counts_) {
    n += c.failed;
  }
  return n;
}

// Throughput counts the time the agent had changes on their way: from the
// first write of a burst (the replay, a reload) until all are confirmed.
void Host::burstStarts() {
  if (burstStart_ == Clock::time_point{}) {
    burstStart_ = Clock::now();
  }
}

void Host::burstEnds() {
  if (burstStart_ != Clock::time_point{}) {
    busy_ += Clock::now() - burstStart_;
    burstStart_ = {};
  }
}

void Host::checkDone() {
  if (finished_ || !replayDone_ || doneAnnounced_ || next_ < queue_.size() ||
      unconfirmed() != 0) {
    return;
  }
  // The hardware writer has taken everything: its last versions go to the
  // tables, which finish their handles and retire their logs up to them.
  forwardHwProgress();
  if (outstanding_ != 0) {
    return;
  }
  doneAnnounced_ = true;
  burstEnds();
  publishStats();
  if (!opt_.stay) {
    finish(failureReasons_.empty() ? kExitOk : kExitFailed,
           failureReasons_.empty() ? "every change confirmed"
                                   : "some changes failed");
    return;
  }
  out_.endStatus();
  out_.line(fmt::format(
      "every change finished ({} failed); staying: SIGHUP re-reads {}, "
      "SIGINT or SIGTERM stops",
      failedTotal(),
      opt_.file.empty() ? "nothing (the set is generated)" : opt_.file));
}

// SIGHUP: the file again; only the difference is written.
void Host::reload() {
  if (opt_.file.empty()) {
    out_.line("SIGHUP: the desired set is generated; nothing to re-read");
    return;
  }
  if (!replayDone_) {
    reloadPending_ = true;
    out_.line("SIGHUP: the file is re-read once the first replay is written");
    return;
  }
  DesiredSet next;
  try {
    next = readFile(opt_.file, opt_.units);
  } catch (const InputError &e) {
    out_.line(fmt::format("SIGHUP: {} not applied; the previous set stays:\n{}",
                          opt_.file, e.what()));
    return;
  }
  std::vector<Change> changes = diff(desired_, next);
  std::size_t writes = 0;
  for (const Change &c : changes) {
    writes += c.op == Change::Op::write ? 1 : 0;
  }
  desired_ = std::move(next);
  ++reloads_;
  out_.line(fmt::format("SIGHUP: {} re-read: {} writes, {} removes", opt_.file,
                        writes, changes.size() - writes));
  if (changes.empty()) {
    return;
  }
  syncInLifData();
  queue_.erase(queue_.begin(), queue_.begin() + static_cast<long>(next_));
  next_ = 0;
  queue_.insert(queue_.end(), changes.begin(), changes.end());
  doneAnnounced_ = false;
  lastProgress_ = Clock::now();
  burstStarts();
  scheduleWrites();
}

void Host::tick() {
  if (finished_) {
    return;
  }
  const auto now = Clock::now();
  const std::uint64_t left = unconfirmed();
  const bool busy = !doneAnnounced_;
  if (busy) {
    if (out_.tty()) {
      out_.status(statusText());
    } else if (now - lastPlain_ >= kPlainEvery) {
      out_.line(statusText());
      lastPlain_ = now;
    }
  }
  if (left == 0) {
    checkDone();
    return;
  }
  const auto silent = now - lastProgress_;
  if (forHardware() == 0) {
    // Nothing waits for the hardware (changes may wait for resources).
    lastProgress_ = now;
    return;
  }
  if (silent >= std::chrono::duration<double>(opt_.confirmTimeout)) {
    finish(kExitFailed,
           fmt::format("the hardware writer confirmed nothing for {} s; {} "
                       "changes unconfirmed (is mpls-hw --agent {} running?)",
                       opt_.confirmTimeout, left, opt_.agent));
    return;
  }
  const auto notice = std::min<Clock::duration>(
      kWaitNotice, std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double>(opt_.confirmTimeout / 2)));
  if (silent >= notice && now - lastWaitNotice_ >= notice) {
    out_.line(fmt::format("waiting for the hardware writer (mpls-hw --agent "
                          "{}): {} changes unconfirmed, nothing confirmed "
                          "for {:.0f} s",
                          opt_.agent, left, seconds(silent)));
    lastWaitNotice_ = now;
  }
}

std::string Host::statusText() {
  std::uint64_t done = 0;
  for (const auto &[at, c] : counts_) {
    done += c.confirmed + c.unchanged + c.failed;
  }
  const auto now = Clock::now();
  if (now - lastRateAt_ >= kStatusEvery) {
    rate_ =
        static_cast<double>(done - lastRateCount_) / seconds(now - lastRateAt_);
    lastRateAt_ = now;
    lastRateCount_ = done;
  }
  const char *phase = !replayDone_            ? "replay"
                      : next_ < queue_.size() ? "update"
                                              : "confirming";
  return fmt::format("{}: {}/{} written, {} finished, {} unconfirmed, "
                     "{:.0f} changes/s",
                     phase, next_, queue_.size(), done, unconfirmed(), rate_);
}

void Host::publishStats() {
  if (!statsSlate_) {
    return;
  }
  const auto publish = [this](const auto &fam) {
    for (const auto &t : fam.intf->swTableSet()->swTableList()) {
      statsSlate_->swTableStatsIs(t->swTableId(), t->unitId(), *t->stats(),
                                  t->hasPendingHwWrites());
    }
  };
  publish(isem2_);
  publish(lem_);
}

void Host::finish(int code, const std::string &outcome) {
  if (finished_) {
    return;
  }
  finished_ = true;
  burstEnds();
  exitCode_ = code;
  outcome_ = outcome;
  out_.endStatus();
  publishStats();
  const Json doc = summary();
  if (opt_.json) {
    std::printf("%s\n", doc.dump(2).c_str());
  } else {
    printSummary(doc, stdout);
  }
  std::fflush(stdout);
  if (code != kExitOk) {
    out_.line(outcome);
  }
  loop_->stop();
}

template <typename B> void Host::summaryRows(Json &rows) const {
  const auto &fam = const_cast<Host *>(this)->family<B>();
  auto list = fam.intf->swTableSet()->swTableList();
  std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) {
    return a->unitId() < b->unitId();
  });
  for (const auto &t : list) {
    const auto table = Fwk::ptrCast<typename B::SwTable>(t);
    const auto it = counts_.find({kindOf<B>(), t->unitId()});
    const UnitCounts c = it == counts_.end() ? UnitCounts{} : it->second;
    const bool driven = fam.tables.contains(t->unitId());
    if (!driven && c.reconciled == 0) {
      continue; // a unit cleared by an earlier run: nothing left to say
    }
    rows.push_back({{"table", B::Constants::tableName},
                    {"unit", t->unitId()},
                    {"driven", driven},
                    {"entries", table ? table->entrys() : 0},
                    {"desired", desired_.count(kindOf<B>(), t->unitId())},
                    {"restored", c.restored},
                    {"written", c.writes},
                    {"removed", c.removes},
                    {"confirmed", c.confirmed},
                    {"unchanged", c.unchanged},
                    {"failed", c.failed},
                    {"swept", c.swept},
                    {"reconciled", c.reconciled}});
  }
}

Json Host::summary() const {
  Json rows = Json::array();
  summaryRows<Isem2>(rows);
  summaryRows<Lem>(rows);
  std::uint64_t restored = 0, writes = 0, removes = 0, confirmed = 0,
                unchanged = 0, failed = 0, reconciled = 0;
  for (const auto &[at, c] : counts_) {
    restored += c.restored;
    writes += c.writes;
    removes += c.removes;
    confirmed += c.confirmed;
    unchanged += c.unchanged;
    failed += c.failed;
    reconciled += c.reconciled;
  }
  std::vector<double> lat = latenciesUs_;
  std::sort(lat.begin(), lat.end());
  const auto pct = [&](double q) -> Json {
    if (lat.empty()) {
      return nullptr;
    }
    // Nearest rank: the smallest sample with at least q of them at or below.
    const auto rank = static_cast<std::size_t>(
        std::max(1.0, std::ceil(q * static_cast<double>(lat.size()))));
    return lat[rank - 1] / 1000.0;
  };
  const std::uint64_t changes = writes + removes + sweptTotal_;
  const double secs = seconds(busy_);
  Json reasons = Json::object();
  for (const auto &[r, n] : failureReasons_) {
    reasons[r] = n;
  }
  const auto resources = [](const auto &t) {
    return Json{{"inUse", t->allocator().inUse()}, {"capacity", t->capacity()}};
  };
  return Json{
      {"agent", opt_.agent},
      {"store", shm_ ? shm_->directory() : std::string()},
      {"units", opt_.units},
      {"source", opt_.file.empty() ? Json("generated") : Json(opt_.file)},
      {"outcome", outcome_},
      {"exitCode", exitCode_},
      {"tables", std::move(rows)},
      {"restore",
       {{"entriesRestored", restored},
        {"resourcesRestored", resourcesRestored_},
        {"swept", sweptTotal_},
        {"reconciled", reconciled},
        {"resourcesReleased", resourcesReleased_}}},
      {"changes",
       {{"writes", writes},
        {"removes", removes},
        {"swept", sweptTotal_},
        {"confirmed", confirmed},
        {"unchanged", unchanged},
        {"failed", failed},
        {"reloads", reloads_},
        {"seconds", secs},
        {"perSecond",
         secs > 0 ? Json(static_cast<double>(changes) / secs) : Json()}}},
      {"latencyMs",
       {{"samples", lat.size()},
        {"p50", pct(0.50)},
        {"p99", pct(0.99)},
        {"max", lat.empty() ? Json() : Json(lat.back() / 1000.0)}}},
      {"resources", {{"inLifs", resources(inLif_)}, {"fecs", resources(adj_)}}},
      {"failures", failures_},
      {"failureReasons", std::move(reasons)},
      {"seconds", seconds(Clock::now() - started_)}};
}

} // namespace

int runAgent(const Options &opt, DesiredSet desired) {
  Host host(opt, std::move(desired));
  return host.run();
}

} // namespace MplsAgent
