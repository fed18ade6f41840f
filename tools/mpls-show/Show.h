// The commands of mpls-show: read-only views of an agent's store instance
// and of its hardware writer's ("<agent>-hw"), safe against live writers.
//
//   MplsShow::Show show("mpls-agent", /*json*/ false);
//   show.summary();                        // prints to stdout
//   show.entries("isem2", 1, std::nullopt);
//
// Reads never take the writer lock and never write; records are copied out
// of the mappings before they are looked at. A record that fails its checks
// is reported on stderr, counted (corruptRecords in JSON) and skipped.
// Failures are thrown as ShowError with the program's exit code.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/asic/Types.h"
#include "platform/shm/Errors.h"
#include "tools/hw/InstanceView.h"
#include "tools/mpls-show/Render.h"

namespace MplsShow {

// Exit codes besides 0.
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitMissing = 4; // no store, instance or entity

class ShowError : public std::runtime_error {
public:
  ShowError(int code, const std::string &what)
      : std::runtime_error(what), code_(code) {}
  int code() const noexcept { return code_; }

private:
  int code_;
};

class Show {
public:
  Show(std::string agent, bool json);
  ~Show();
  Show(const Show &) = delete;
  Show &operator=(const Show &) = delete;

  // Per table type: versions logged, written whole and confirmed, change-log
  // records pending, the hardware writer's counters; per unit: entries,
  // entries in deletion and hardware entries.
  void summary();
  // A unit's committed entries, by label; only `label` when given.
  void entries(const std::string &table, Asic::UnitId unit,
               std::optional<std::uint32_t> label);
  // Change-log records from version `from` on, by version; at most `limit`
  // (0: all).
  void log(const std::string &table, Asic::LogVersion from,
           std::uint64_t limit);
  // A unit's simulated hardware table, by label.
  void hw(const std::string &table, Asic::UnitId unit);
  // The agent's published table counters, as text, JSON or in the
  // Prometheus text format.
  void stats(bool prometheus);
  // Where a label stands (tools/inspect/Why.h): asked of the running agent
  // through its inspection endpoint, else (or with `storesOnly`) read from
  // the stores. A unit or table the agent does not have is ShowError
  // (kExitMissing).
  void why(const std::string &table, Asic::UnitId unit, std::uint32_t label,
           std::uint8_t qualifier, bool storesOnly);
  // The running agent's rates, queue depths, waits by cause and oldest
  // waiting change, every `interval`: `count` screens, 0 until interrupted.
  // ShowError(kExitMissing) when no agent answers.
  void top(std::uint64_t count, std::chrono::milliseconds interval);

  // For programs that embed the inspector (the Python module): each
  // command's JSON document goes to `into` instead of stdout.
  void captureIs(Json *into) noexcept { capture_ = into; }

  // Records found corrupt so far.
  std::uint64_t corruptRecords() const noexcept { return reporter_.count; }

private:
  struct CountingReporter : Shm::Reporter {
    void corruption(const std::string &message) override;
    void notice(const std::string &message) override;
    std::uint64_t count = 0;
  };

  template <typename B> Json tableSummary();
  template <typename B>
  void entriesOf(Asic::UnitId unit, std::optional<std::uint32_t> label);
  template <typename B> void logOf(Asic::LogVersion from, std::uint64_t limit);
  template <typename B> void hwOf(Asic::UnitId unit);
  template <typename B>
  Json whyFromStores(Asic::UnitId unit, const typename B::Key &key);

  // The agent's instance; ShowError(kExitMissing) when it does not exist.
  MicaMplsHw::InstanceView &agent();
  // The entity, or ShowError: kExitMissing when it is not there,
  // kExitFailure when it cannot be read (another layout, a bad header).
  template <typename E>
  Fwk::Ptr<E> need(MicaMplsHw::InstanceView &view, const std::string &path,
                   const std::string &what);
  // The entity, or null when it is missing or cannot be read (said on
  // stderr).
  template <typename E>
  Fwk::Ptr<E> maybe(MicaMplsHw::InstanceView &view, const std::string &path);
  // Reads a whole collection, reporting when corruption made it give up.
  template <typename Coll, typename Restart, typename F>
  void read(Coll &coll, bool ordered, Restart &&restart, F &&f);
  // Prints the document as JSON (with corruptRecords), or calls `text`.
  template <typename Text> void print(Json doc, Text &&text);

  std::string agentName_;
  bool json_;
  CountingReporter reporter_;
  MicaMplsHw::InstanceView agent_;
  MicaMplsHw::InstanceView hw_;
  Json *capture_ = nullptr;
};

} // namespace MplsShow
