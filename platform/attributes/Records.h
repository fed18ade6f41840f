// Attributes (Attributes.h) of the MicaMpls records: label keys, entries,
// log entries and resource keys of both tables, field by field, as the
// inspection tools and the scripting interface show them.
//
//   Introspect::put(visitor, "entry", table->entry(key));
#pragma once

#include "platform/attributes/Runtime.h"
#include "platform/records/MplsIsem2Records.h"
#include "platform/records/MplsLemRecords.h"

namespace Introspect {

template <typename Tag> struct Describe<MicaMpls::MplsLabelKey<Tag>> {
  static constexpr const char *kClass = Tag::kName;
  template <typename A>
  static void attributes(const MicaMpls::MplsLabelKey<Tag> &k, A &a) {
    a("label", k.label);
    a("qualifier", k.qualifier);
  }
};

template <> struct Describe<MicaMpls::MplsIsem2ResourceKeys> {
  static constexpr const char *kClass = "MplsIsem2ResourceKeys";
  template <typename A>
  static void attributes(const MicaMpls::MplsIsem2ResourceKeys &r, A &a) {
    a("inLifKey", r.inLifKey);
    a("inLifClientData", r.inLifClientData);
  }
};

template <> struct Describe<MicaMpls::MplsIsem2LogEntry> {
  static constexpr const char *kClass = "MplsIsem2LogEntry";
  template <typename A>
  static void attributes(const MicaMpls::MplsIsem2LogEntry &e, A &a) {
    a("key", e.key);
    a("inLif0Index", e.inLif0Index);
    a("inLif23Index", e.inLif23Index);
  }
};

template <> struct Describe<MicaMpls::MplsIsem2Entry> {
  static constexpr const char *kClass = "MplsIsem2Entry";
  template <typename A>
  static void attributes(const MicaMpls::MplsIsem2Entry &e, A &a) {
    a("key", e.key);
    a("inLifKey", e.inLifKey);
    a("inLifClientData", e.inLifClientData);
    a("inLif0Index", e.inLif0Index);
    a("inLif23Index", e.inLif23Index);
  }
};

template <> struct Describe<MicaMpls::MplsLemResourceKeys> {
  static constexpr const char *kClass = "MplsLemResourceKeys";
  template <typename A>
  static void attributes(const MicaMpls::MplsLemResourceKeys &r, A &a) {
    a("l2AdjId", r.l2AdjId);
  }
};

template <> struct Describe<MicaMpls::MplsLemLogEntry> {
  static constexpr const char *kClass = "MplsLemLogEntry";
  template <typename A>
  static void attributes(const MicaMpls::MplsLemLogEntry &e, A &a) {
    a("key", e.key);
    a("fecId", e.fecId);
    a("errorCode", e.errorCode);
  }
};

template <> struct Describe<MicaMpls::MplsLemEntry> {
  static constexpr const char *kClass = "MplsLemEntry";
  template <typename A>
  static void attributes(const MicaMpls::MplsLemEntry &e, A &a) {
    a("key", e.key);
    a("l2AdjId", e.l2AdjId);
    a("fecId", e.fecId);
    a("errorCode", e.errorCode);
  }
};

} // namespace Introspect
