// What the generic table code requires of a table family.
//
// Every algorithm of the software tables is written once, over a *binding*:
// a small struct that names a table family's types and states its few real
// differences. MicaMpls/MplsIsem2Binding.h and MicaMpls/MplsLemBinding.h are
// the two there are; a third table is added by writing its binding, its
// records and its thin per-table classes, nothing else.
//
//   struct MyBinding {
//     using Key = ...; using Entry = ...; using LogEntry = ...;
//     using ResourceKeys = ...; using Constants = ...;
//     using SwTable = ...; using EntryWrapper = ...; using ResolverEntry = ...;
//     using Helper = ...; using EntryLog = ...; using Linkage = ...;
//     using ResourceHandle = ...; using ResourceKey = ...;
//     static constexpr const char *kSwTableClass = "MySwTable";  // ...
//     static ResourceKey resourceKey(const Entry &);
//     static void setResolvedFields(Entry &, const ResourceHandle *);
//     static auto requestData(const Entry &);  // what a request carries
//     static constexpr bool kCarriesClientData = ...;
//     static void retrieveClientData(Entry &, const ResourceHandle &);
//   };
#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>

namespace Asic {

template <typename B>
concept TableBinding = requires(typename B::Entry &entry,
                                const typename B::Entry &centry,
                                const typename B::Key &key,
                                const typename B::ResourceHandle *handle) {
  // Records of the family.
  typename B::Key;
  // The key in 64 bits, as the hardware writer's records name it.
  { key.packed() } -> std::convertible_to<std::uint64_t>;
  typename B::Entry;
  typename B::LogEntry;
  typename B::ResourceKeys;
  typename B::Constants;
  // Its classes (the generic code derives them or calls into them).
  typename B::SwTable;
  typename B::EntryWrapper;
  typename B::ResolverEntry;
  typename B::Helper;
  typename B::EntryLog;
  typename B::Linkage;
  // Its resource.
  typename B::ResourceHandle;
  typename B::ResourceKey;
  // Names: class names and source units as traces and attributes show them.
  { B::kSwTableClass } -> std::convertible_to<std::string_view>;
  { B::kWrapperClass } -> std::convertible_to<std::string_view>;
  { B::kTableSourceUnit } -> std::convertible_to<std::string_view>;
  { B::kInfraSourceUnit } -> std::convertible_to<std::string_view>;
  { B::kLinkageAttr } -> std::convertible_to<std::string_view>;
  // Differences: the entry's resource key, the fields the resource fills in,
  // and whether the resource's client data is copied back into the entry.
  { B::resourceKey(centry) } -> std::same_as<typename B::ResourceKey>;
  B::setResolvedFields(entry, handle);
  // What a request of the entry's resource carries besides its key (the
  // resource table's client data; Fwk::Unit when there is none).
  B::requestData(centry);
  { B::kCarriesClientData } -> std::convertible_to<bool>;
};

} // namespace Asic
