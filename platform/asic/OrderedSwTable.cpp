#include "platform/asic/OrderedSwTable.h"

#include <algorithm>

#include "platform/asic/GroupResolver.h"

namespace Asic {

CanonicalTableName::CanonicalTableName(Kind kind, std::string ns,
                                       std::string name)
    : kind_(kind), ns_(std::move(ns)), name_(std::move(name)),
      str_(ns_ + "::" + name_) {}
CanonicalTableName::~CanonicalTableName() = default;

Fwk::Ptr<const CanonicalTableName>
CanonicalTableName::canonicalTableNameIs(Kind kind, std::string ns,
                                         std::string name) {
  return Fwk::make<CanonicalTableName>(kind, std::move(ns), std::move(name));
}

DependencyEntryHandle::~DependencyEntryHandle() = default;

NeededEntry::~NeededEntry() = default;

void NeededEntry::add(const TableVersion &v) { versions_.push_back(v); }

void NeededEntry::add(const Fwk::Ptr<const DependencyEntryHandle> &dependency) {
  if (dependency) {
    versions_.push_back(TableVersion{dependency->tableId(),
                                     dependency->logVersion()});
  }
}

SwTableStats::~SwTableStats() = default;

SwTableBase::SwTableBase(Fwk::Ptr<const CanonicalTableName> name,
                         SwTableId swTableId, UnitId unitId,
                         OrderedSwTableSet *swTableSet)
    : name_(std::move(name)), swTableId_(swTableId), unitId_(unitId),
      swTableSet_(swTableSet) {}
SwTableBase::~SwTableBase() = default;

void SwTableBase::statsIs() {
  stats_ = Fwk::make<SwTableStats>();
  notify(attrStats);
}

void SwTableBase::statusIs(const Fwk::Ptr<OrderedSwTableStatus> &status) {
  if (status_ == status) {
    return;
  }
  Fwk::Ptr<OrderedSwTableStatus> old = std::move(status_);
  status_ = status;
  notify(attrStatus);
}

OrderedSwTable::~OrderedSwTable() = default;
OrderedSwTable::EntryHandle::~EntryHandle() = default;
OrderedSwTableWithMarkSweep::~OrderedSwTableWithMarkSweep() = default;

OrderedSwTableStatus::~OrderedSwTableStatus() = default;

void OrderedSwTableStatus::pendingHwWritesIs(bool on) {
  if (pendingHwWrites_ == on) {
    return;
  }
  pendingHwWrites_ = on;
  notify(attrPendingHwWrites);
}

OrderedSwTableSet::OrderedSwTableSet(SwTableId tableId,
                                     Fwk::Ptr<OrderedSwTableStatus> status)
    : tableId_(tableId), status_(std::move(status)) {}

OrderedSwTableSet::~OrderedSwTableSet() = default;

namespace {
// Where the table of `unit` is, or would go, in a unit-ordered array.
template <typename Tables> auto unitLowerBound(Tables &tables, UnitId unit) {
  return std::lower_bound(tables.begin(), tables.end(), unit,
                          [](const Fwk::Ptr<OrderedSwTable> &t, UnitId u) {
                            return t->unitId() < u;
                          });
}
// Whether `it`, from unitLowerBound, holds the table of `unit`.
template <typename Tables, typename It>
bool holds(const Tables &tables, It it, UnitId unit) {
  return it != tables.end() && (*it)->unitId() == unit;
}
} // namespace

Fwk::Ptr<OrderedSwTable> OrderedSwTableSet::swTable(UnitId unit) const {
  const auto it = unitLowerBound(tables_, unit);
  return holds(tables_, it, unit) ? *it : nullptr;
}

void OrderedSwTableSet::swTableIs(const Fwk::Ptr<OrderedSwTable> &table) {
  if (!table) {
    return;
  }
  const UnitId unit = table->unitId();
  const auto it = unitLowerBound(tables_, unit);
  if (holds(tables_, it, unit)) {
    *it = table;
  } else {
    tables_.insert(it, table);
  }
  notify(attrSwTable, unit);
}

void OrderedSwTableSet::swTableDel(UnitId unit) {
  const auto it = unitLowerBound(tables_, unit);
  if (holds(tables_, it, unit)) {
    // Dropped after it has left the set: its destruction may look at the set.
    const Fwk::Ptr<OrderedSwTable> gone = std::move(*it);
    tables_.erase(it);
    notify(attrSwTable, unit);
  }
}

void OrderedSwTableSet::maybeUpdatePendingHwWrites() {
  ++updates_;
  bool pending = false;
  for (auto it = tables_.begin(); it != tables_.end() && !pending; ++it) {
    pending = (*it)->hasPendingHwWrites();
  }
  if (pending != pendingHwWrites_) {
    pendingHwWrites_ = pending;
    notify(attrPendingHwWrites);
  }
  if (status_) {
    status_->pendingHwWritesIs(pending);
  }
}

ResolverEntry::~ResolverEntry() {
  if (parkedOn_) {
    parkedOn_->unpark(*this);
  }
}

} // namespace Asic
