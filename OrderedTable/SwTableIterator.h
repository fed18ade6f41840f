// Resumable iteration over a software table, written once for every table
// family: pending writes first (in the hash order of transientAddEntry),
// then every committed entry that is neither shadowed by a pending write nor
// being removed (in the configuration table's order).
//
//   for (auto it = table->entryIteratorConst(); !it.done(); ++it)
//     show(it.entry());
//
// The state keeps only a bookmark (the key of the next entry to return), and
// each step reopens its collection there, so an iteration stays valid while
// the table changes between steps: an entry written meanwhile shows up only
// if its key still lies ahead of the bookmark. The step itself is in
// OrderedSwTableAccessor.h.
#pragma once

#include <cstdint>

#include "OrderedTable/TableBinding.h"
#include "platform/framework/HashMap.h"
#include "platform/framework/Notifier.h"

namespace Asic {

class SwTableIteratorStateBase : public Fwk::Object {
public:
  // The phase and bookmark flags of an iteration.
  class State {
  public:
    static constexpr std::uint8_t kEntryValid =
        1u << 0; // a current entry is loaded
    static constexpr std::uint8_t kInAddColl = 1u
                                               << 1; // walking pending writes
    static constexpr std::uint8_t kInTblCfg = 1u
                                              << 2; // walking the configuration
    static constexpr std::uint8_t kRemoveAll = 1u
                                               << 3; // a remove-all was pending
    static constexpr std::uint8_t kBookmark = 1u << 4; // bookmarkKey is valid

    std::uint8_t bits() const noexcept { return bits_; }
    bool entryValid() const noexcept { return bits_ & kEntryValid; }
    bool inAddColl() const noexcept { return bits_ & kInAddColl; }
    bool inTblCfg() const noexcept { return bits_ & kInTblCfg; }
    bool removeAllPending() const noexcept { return bits_ & kRemoveAll; }
    bool bookmarkValid() const noexcept { return bits_ & kBookmark; }
    void set(std::uint8_t b) noexcept { bits_ |= b; }
    void clear(std::uint8_t b) noexcept {
      bits_ &= static_cast<std::uint8_t>(~b);
    }

  private:
    std::uint8_t bits_ = 0;
  };

  const State &state() const noexcept { return state_; }
  State &state() noexcept { return state_; }
  // Loads the next entry and moves the bookmark.
  virtual void maybeUpdateCurrentEntry() = 0;

protected:
  SwTableIteratorStateBase() = default;
  ~SwTableIteratorStateBase() override = default;

private:
  State state_;
};

template <typename B>
class __attribute__((visibility("default"))) TableIterState
    : public SwTableIteratorStateBase {
public:
  using Table = typename B::SwTable;
  using Key = typename B::Key;
  using Entry = typename B::Entry;

  TableIterState() = default;

  const Table *swTable() const noexcept { return swTable_; }
  void swTableIs(const Table *t) noexcept { swTable_ = t; }
  const Key &bookmarkKey() const noexcept { return bookmark_; }
  void bookmarkKeyIs(const Key &k) noexcept { bookmark_ = k; }
  const Entry &currentEntry() const noexcept { return current_; }
  void currentEntryIs(const Entry &e) noexcept { current_ = e; }

  void maybeUpdateCurrentEntry() override;

private:
  ~TableIterState() override = default;

  const Table *swTable_ = nullptr; // the table outlives its iterators
  Key bookmark_;
  Entry current_;
};

// An iteration, read through its current entry. Constructing it loads the
// first entry; it is done when its state holds no current entry.
template <typename State> class OrderedSwTableEntryIterator {
public:
  explicit OrderedSwTableEntryIterator(Fwk::Ptr<State> state)
      : state_(std::move(state)) {
    state_->maybeUpdateCurrentEntry();
  }
  bool done() const noexcept { return !state_->state().entryValid(); }
  const auto &entry() const noexcept { return state_->currentEntry(); }
  OrderedSwTableEntryIterator &operator++() {
    state_->maybeUpdateCurrentEntry();
    return *this;
  }
  const Fwk::Ptr<State> &iterState() const noexcept { return state_; }

private:
  Fwk::Ptr<State> state_;
};

// A snapshot of a table (the scripting interface's view): key -> entry.
template <typename B> class SwTableEntries : public Fwk::Notifier {
public:
  using Key = typename B::Key;
  using Entry = typename B::Entry;
  static constexpr Fwk::AttrId attrTableEntries{1, "tableEntries"};

  SwTableEntries() = default;

  const Fwk::HashMap<Key, Entry> &tableEntries() const noexcept {
    return entries_;
  }
  const Entry *tableEntry(const Key &k) const { return entries_.find(k); }
  std::size_t size() const noexcept { return entries_.size(); }
  void tableEntriesIs(const Entry &e) {
    entries_.insert(e.key, e);
    notify(attrTableEntries, e.key);
  }
  void tableEntriesDel(const Key &k) {
    if (entries_.erase(k)) {
      notify(attrTableEntries, k);
    }
  }
  void tableEntriesDelAll() {
    if (!hasObservers()) {
      entries_.clear();
      return;
    }
    while (!entries_.empty()) {
      tableEntriesDel(Key(entries_.begin().key()));
    }
  }

private:
  ~SwTableEntries() override = default;
  Fwk::HashMap<Key, Entry> entries_{0x1f83d9abu};
};

} // namespace Asic
