// What mpls-show prints of a table type's records: its command-line name,
// the resolved fields of its log entry and the fields of its resource key.
// One specialisation per table type; the commands are written once over it.
//
//   using V = TableView<MicaMpls::MplsLemBinding>;
//   for (const Field &f : V::resolved(logEntry)) print(f.name, f.value);
#pragma once

#include <cstdint>
#include <vector>

#include "MicaMpls/MplsIsem2Binding.h"
#include "MicaMpls/MplsLemBinding.h"

namespace MplsShow {

struct Field {
  const char *name;
  std::uint64_t value;
  bool hex = false; // shown in hexadecimal in text
};

template <typename B> struct TableView;

template <> struct TableView<MicaMpls::MplsIsem2Binding> {
  static constexpr const char *kShortName = "isem2";
  // The JSON object (and text column prefix) of the resource key.
  static constexpr const char *kResourceName = "inLifKey";
  static std::vector<Field> resolved(const MicaMpls::MplsIsem2LogEntry &e) {
    return {{"inLif0Index", e.inLif0Index}, {"inLif23Index", e.inLif23Index}};
  }
  static std::vector<Field> resource(const MicaMpls::MplsIsem2ResourceKeys &r) {
    const auto &k = r.inLifKey;
    return {{"lifType", k.lifType},
            {"vrfId", k.vrfId},
            {"label", k.label},
            {"profile", k.profile},
            {"ownerCookie", k.ownerCookie, true},
            {"flags", k.flags, true}};
  }
};

template <> struct TableView<MicaMpls::MplsLemBinding> {
  static constexpr const char *kShortName = "lem";
  static constexpr const char *kResourceName = "l2AdjKey";
  static std::vector<Field> resolved(const MicaMpls::MplsLemLogEntry &e) {
    return {{"fecId", e.fecId}, {"errorCode", e.errorCode}};
  }
  static std::vector<Field> resource(const MicaMpls::MplsLemResourceKeys &r) {
    return {{"l2AdjId", r.l2AdjId}};
  }
};

} // namespace MplsShow
