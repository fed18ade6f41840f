// The group resolver: holds changes until they can be committed.
//
// Tables queue one ResolverEntry per change and call updateGenId() when
// something may have become ready. The resolver never commits inside the
// caller's call: updateGenId() schedules one pass on the event loop, so a
// burst of writes is committed in one pass.
//
//   auto resolver = Fwk::make<Asic::GroupResolver>(
//       [loop](std::function<void()> task) { loop->defer(std::move(task)); });
//   resolver->resolverQueueEnq(entry);
//   resolver->updateGenId();        // a pass runs soon, on the loop
//
// A pass offers queued entries in queue order: it asks the front entry
// isResolved() and, when it answers true, dequeues it and calls its
// commitEntry(); an entry that is not ready holds back every entry queued
// after it (this keeps the changes of one key, and every remove-all, in
// order). The pass ends there, or when the queue is empty, and the next
// updateGenId() schedules the next one.
//
// Re-entrancy: commitEntry() and the response handlers it runs may queue
// entries (they go to the back and are offered in the same pass once their
// turn comes) and call updateGenId() (which schedules another pass). The
// resolver keeps itself alive during a pass.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>

#include "platform/Export.h"
#include "platform/asic/OrderedSwTable.h"

namespace Asic {

class MICA_PLATFORM_API GroupResolver : public Fwk::Notifier {
public:
  using Task = std::function<void()>;
  using Scheduler = std::function<void(Task)>;

  static constexpr Fwk::AttrId attrGenId{1, "genId"};
  static constexpr Fwk::AttrId attrSuspended{2, "suspended"};
  static constexpr Fwk::AttrId attrResolverQueue{3, "resolverQueue"};

  // Clients are asked to hold back new changes (suspended()) while more than
  // kSuspendHigh entries are queued, until fewer than kSuspendLow are.
  static constexpr std::size_t kSuspendHigh = 1u << 20;
  static constexpr std::size_t kSuspendLow = 1u << 19;

  // `schedule` runs a task later on the event thread. Without one, passes
  // run only through runPass().
  explicit GroupResolver(Scheduler schedule = nullptr);

  void resolverQueueEnq(const Fwk::Ptr<ResolverEntry> &entry);
  std::size_t resolverQueueSize() const noexcept { return queue_.size(); }
  // The queued entry at a position (0 is the front), or null.
  Fwk::Ptr<ResolverEntry> resolverQueue(std::size_t position) const;

  // Something may have become ready: advance the generation and schedule a
  // pass unless one is already scheduled.
  void updateGenId();
  std::uint64_t genId() const noexcept { return genId_; }
  bool passScheduled() const noexcept { return passScheduled_; }

  // Re-evaluates whether clients should hold back.
  void maybeUpdateSuspend();
  bool suspended() const noexcept { return suspended_; }

  // Runs one pass now. Returns the number of entries committed.
  std::size_t runPass();

private:
  ~GroupResolver() override;

  Scheduler schedule_;
  std::deque<Fwk::Ptr<ResolverEntry>> queue_;
  std::uint64_t genId_ = 0;
  bool passScheduled_ = false;
  bool inPass_ = false;
  bool suspended_ = false;
};

} // namespace Asic
