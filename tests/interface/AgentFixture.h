// An agent booted the way a real one boots its MPLS tables, inside the test
// process: the ordered-table interface, the MicaMpls group with its two
// resource tables (kept in the agent's store), and the ISEM2 and LEM table
// interfaces. A hardware-writer stand-in records confirmed versions in its
// own instance. stop() ends the agent as a process exit would (interfaces
// deleted, store instance closed); booting again over the same store is a
// restart.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "MicaMpls/MplsIsem2Interface.h"
#include "MicaMpls/MplsLemInterface.h"
#include "pipeline/PipelineFixture.h"
#include "platform/asic/OrderedTableInterface.h"
#include "platform/asic/TableVersionSlate.h"
#include "support/FreshInstance.h"

namespace InterfaceTest {

using PipelineTest::Isem2;
using PipelineTest::Lem;

struct Agent {
  explicit Agent(std::string agentName, std::string hwName)
      : name(std::move(agentName)), hw(std::move(hwName)) {}
  ~Agent() { stop(); }

  // Boots the agent; `withResources` false leaves the group without
  // resource tables, `wrongResource` registers each under the other's name.
  void boot(bool withResources = true, bool wrongResource = false) {
    stateDb = StateDb::entityManagerIs(name, 0);
    otIntf = Fwk::make<Asic::OrderedTableInterface>(stateDb);
    otIntf->hwWriterIs(hw, 0);
    group = otIntf->makeGroupIntf(0x0a08, "MicaMpls");
    auto shm = Shm::entityManager(name, 0);
    inLif = Fwk::make<Isem2::ResTable>(
        Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::resourceTable, "MicaTunnelNiLib",
            "InLif.featureMicaMpls"));
    adj =
        Fwk::make<Lem::ResTable>(Asic::CanonicalTableName::canonicalTableNameIs(
            Asic::CanonicalTableName::resourceTable, "MicaAdjLib",
            "L2AdjToFecResourceTable.micaMpls"));
    if (withResources) {
      inLif->storeIs(shm);
      adj->storeIs(shm);
      group->namedTableIs(inLif);
      group->namedTableIs(adj);
    }
    if (wrongResource) {
      group->namedTableIs(inLif->name(), adj);
      group->namedTableIs(adj->name(), inLif);
    }
    isem2 = MicaMpls::MplsIsem2Interface::getIntf(otIntf);
    lem = MicaMpls::MplsLemInterface::getIntf(otIntf);
  }

  void stop() {
    if (isem2) {
      isem2->onDelete();
    }
    if (lem) {
      lem->onDelete();
    }
    isem2 = nullptr;
    lem = nullptr;
    inLif = nullptr;
    adj = nullptr;
    group = nullptr;
    otIntf = nullptr;
    if (stateDb) {
      Shm::entityManager(name, 0)->close();
      stateDb = nullptr;
    }
  }

  void restart() {
    stop();
    boot();
  }

  std::size_t pass() { return group->groupResolver()->runPass(); }
  std::string directory() const {
    return Shm::rootDirectory() + "/" + name + ".0";
  }

  // The hardware writer has taken a table type's changes up to `v`.
  void confirm(std::uint32_t typeId, Asic::LogVersion v) {
    Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls")
        ->tableVersionIs(Asic::SwTableId(typeId), v);
  }

  template <typename F> auto intf() const {
    if constexpr (std::is_same_v<F, Isem2>) {
      return isem2;
    } else {
      return lem;
    }
  }
  template <typename F> auto &resources() const {
    if constexpr (std::is_same_v<F, Isem2>) {
      return *inLif;
    } else {
      return *adj;
    }
  }

  std::string name;
  std::string hw;
  Fwk::Ptr<StateDb::EntityManager> stateDb;
  Fwk::Ptr<Asic::OrderedTableInterface> otIntf;
  Fwk::Ptr<Asic::GroupInterface> group;
  Fwk::Ptr<Isem2::ResTable> inLif;
  Fwk::Ptr<Lem::ResTable> adj;
  Fwk::Ptr<MicaMpls::MplsIsem2Interface> isem2;
  Fwk::Ptr<MicaMpls::MplsLemInterface> lem;
};

// An agent and a hardware writer over fresh store instances, removed after.
struct Fixture {
  Fixture()
      : agent(TestSupport::freshInstanceName("agent"),
              TestSupport::freshInstanceName("hw")) {}
  ~Fixture() {
    agent.stop();
    Shm::entityManager(agent.hw, 0)->close();
    Shm::entityManager(agent.hw, 0, Shm::Access::read)->close();
    std::error_code ec;
    std::filesystem::remove_all(Shm::rootDirectory() + "/" + agent.name + ".0",
                                ec);
    std::filesystem::remove_all(Shm::rootDirectory() + "/" + agent.hw + ".0",
                                ec);
  }
  Agent agent;
};

} // namespace InterfaceTest
