// mpls-show as a real process: its JSON matches the store, Prometheus text
// carries the counters, a missing store is exit 4, and damaged bytes are
// reported, never crashed on.
#include <nlohmann/json.hpp>

#include "ToolsFixture.h"
#include "platform/asic/SwTableStatsSlate.h"

namespace {

using namespace ToolsTest;
using Json = nlohmann::json;

Exit show(const std::string &agent, std::vector<std::string> args) {
  args.insert(args.begin(), {"--agent", agent});
  return run("mpls-show", args);
}

Json showJson(const std::string &agent, std::vector<std::string> args) {
  args.push_back("--json");
  const Exit e = show(agent, args);
  EXPECT_EQ(e.code, 0) << e.err;
  return Json::parse(e.out);
}

TEST(Show, JsonAndTextMatchTheStore) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  agent.lem->mountSlateConfig(3, 0);
  agent.write<Isem2>(1, 100, 10);
  agent.write<Isem2>(1, 101, 11);
  agent.write<Lem>(3, 300, 30);
  ASSERT_EQ(hwOnce(agent.name()).code, 0);
  agent.del<Isem2>(1, 101);
  agent.write<Lem>(3, 301, 31);
  auto stats = Fwk::make<Asic::SwTableStats>();
  stats->entryWriteCntInc(42);
  Asic::mountSwTableStatsSlate(Shm::entityManager(agent.name(), 0), "MicaMpls")
      ->swTableStatsIs(Asic::SwTableId(Isem2::kTypeId), 1, *stats, true);

  const Json sum = showJson(agent.name(), {"summary"});
  EXPECT_EQ(sum["corruptRecords"], 0);
  const Json &isem2 = sum["tables"][0];
  EXPECT_EQ(isem2["table"], "MplsIsem2");
  EXPECT_EQ(isem2["loggedVersion"], 3);
  EXPECT_EQ(isem2["confirmedVersion"], 2);
  EXPECT_EQ(isem2["pendingLogRecords"], 3); // nothing retired here
  EXPECT_EQ(isem2["units"][0], (Json{{"table", "MplsIsem2"},
                                     {"unit", 1},
                                     {"entries", 1},
                                     {"inDeletion", 1},
                                     {"hwEntries", 2},
                                     {"hwRefused", 0}}));
  EXPECT_EQ(sum["tables"][1]["units"][0]["unit"], 3);
  EXPECT_EQ(sum["tables"][1]["confirmedVersion"], 1);

  const Json ent = showJson(agent.name(), {"entries", "isem2", "1"});
  ASSERT_EQ(ent["entries"].size(), 2u);
  EXPECT_EQ(ent["entries"][0]["label"], 100);
  EXPECT_EQ(ent["entries"][0]["inLif0Index"], 10);
  EXPECT_EQ(ent["entries"][0]["inLif23Index"], 11);
  EXPECT_EQ(ent["entries"][0]["resourceKey"]["label"], 100);
  EXPECT_EQ(ent["entries"][0]["deleted"], false);
  EXPECT_EQ(ent["entries"][1]["deleted"], true);
  EXPECT_EQ(ent["entries"][1]["logVersion"], 3);
  EXPECT_EQ(
      showJson(agent.name(), {"entries", "MplsLem", "3", "--label",
                              "301"})["entries"][0]["resourceKey"]["l2AdjId"],
      301);

  const Json log =
      showJson(agent.name(), {"log", "lem", "--from", "2", "--limit", "1"});
  ASSERT_EQ(log["records"].size(), 1u);
  EXPECT_EQ(log["records"][0], (Json{{"version", 2},
                                     {"unit", 3},
                                     {"op", "write"},
                                     {"label", 301},
                                     {"qualifier", 0},
                                     {"fecId", 31},
                                     {"errorCode", 0}}));
  EXPECT_EQ(showJson(agent.name(),
                     {"log", "isem2", "--from", "3"})["records"][0]["op"],
            "delete");

  const Json hw = showJson(agent.name(), {"hw", "lem", "3"});
  EXPECT_EQ(hw["confirmedVersion"], 1);
  EXPECT_EQ(hw["capacity"], 65536);
  ASSERT_EQ(hw["entries"].size(), 1u);
  EXPECT_EQ(hw["entries"][0]["fecId"], 30);

  const Json st = showJson(agent.name(), {"stats"});
  EXPECT_EQ(st["stats"][0]["table"], "MplsIsem2");
  EXPECT_EQ(st["stats"][0]["counters"]["entryWriteCnt"], 42);
  EXPECT_EQ(st["stats"][0]["pendingHwWrites"], true);
  const Exit prom = show(agent.name(), {"stats", "--prometheus"});
  EXPECT_EQ(prom.code, 0);
  EXPECT_NE(
      prom.out.find("# TYPE mica_mpls_sw_table_entry_write_total counter\n"
                    "mica_mpls_sw_table_entry_write_total{table="
                    "\"MplsIsem2\",unit=\"1\"} 42\n"),
      std::string::npos)
      << prom.out;
  EXPECT_NE(prom.out.find("mica_mpls_sw_table_pending_hw_writes{table="
                          "\"MplsIsem2\",unit=\"1\"} 1\n"),
            std::string::npos);

  // Text: a header line and aligned rows.
  const Exit text = show(agent.name(), {"entries", "isem2", "1"});
  EXPECT_EQ(text.code, 0);
  EXPECT_NE(text.out.find("label  qualifier  inLif0Index"), std::string::npos)
      << text.out;
  EXPECT_NE(text.out.find("\n  100          0           10"), std::string::npos)
      << text.out;
  EXPECT_EQ(show(agent.name(), {"summary"}).code, 0);
}

TEST(Show, AMissingStoreInstanceOrEntityExits4AndBadUsage2) {
  EXPECT_EQ(run("mpls-show", {"--store", "/nonexistent/mica", "summary"}).code,
            4);
  const std::string absent = freshAgent();
  const Exit e = show(absent, {"summary"});
  EXPECT_EQ(e.code, 4);
  EXPECT_NE(e.err.find("has the agent started?"), std::string::npos) << e.err;

  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  EXPECT_EQ(show(agent.name(), {"entries", "isem2", "9"}).code, 4);
  EXPECT_EQ(show(agent.name(), {"hw", "isem2", "1"}).code, 4); // no hw writer
  EXPECT_EQ(show(agent.name(), {"stats"}).code, 4);
  EXPECT_EQ(show(agent.name(), {"entries", "mpls", "1"}).code, 2);
  EXPECT_EQ(show(agent.name(), {"entries", "isem2"}).code, 2);
  EXPECT_EQ(show(agent.name(), {}).code, 2);
}

TEST(Show, DamagedBytesAreReportedNotCrashedOn) {
  Agent agent(freshAgent());
  agent.isem2->mountSlateConfig(1, 0);
  for (std::uint32_t l = 0xabc01; l <= 0xabc03; ++l) {
    agent.write<Isem2>(1, l, l);
  }
  const std::string dir = agent.directory() + "/ordered/MicaMpls/MplsIsem2/";
  agent.stop();
  damage(dir + "config/1", Isem2::logEntry(0xabc02, 0xabc02), 8);

  const Exit e = show(agent.name(), {"entries", "isem2", "1", "--json"});
  ASSERT_EQ(e.code, 0) << e.err;
  const Json j = Json::parse(e.out);
  EXPECT_EQ(j["corruptRecords"], 1);
  EXPECT_EQ(j["entries"].size(), 2u);
  EXPECT_NE(e.err.find("corrupt shared memory"), std::string::npos) << e.err;
  // The hardware writer survives it too: the damaged entry is left out.
  const Exit hw = hwOnce(agent.name());
  EXPECT_EQ(hw.code, 0) << hw.err;
  EXPECT_NE(hw.err.find("corrupt shared memory"), std::string::npos) << hw.err;
  EXPECT_EQ(HwView(agent.name()).table<Isem2>(1).size(), 2u);

  // A change log whose header is garbage: a survey goes on, a look at it
  // fails cleanly, and the hardware writer waits for a usable one.
  {
    std::fstream f(dir + "entryLog",
                   std::ios::in | std::ios::out | std::ios::binary);
    f.write(std::string(64, '\xee').data(), 64);
  }
  EXPECT_EQ(show(agent.name(), {"summary"}).code, 0);
  EXPECT_EQ(show(agent.name(), {"log", "isem2"}).code, 1);
  const Exit hw2 = hwOnce(agent.name());
  EXPECT_EQ(hw2.code, 0) << hw2.err;
  EXPECT_NE(hw2.err.find("cannot read the change log"), std::string::npos)
      << hw2.err;
}

} // namespace
