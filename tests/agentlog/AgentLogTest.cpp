#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "platform/agentlog/AgentLog.h"
#include "trace/TestSupport.h"

namespace {

using TraceTest::EnvVar;
using TraceTest::ScratchDir;

const AgentLog::Message kHwError{
    "HW_ABSTRACTION_ERROR",
    "Hardware abstraction error: unable to load item: %s",
    "Hardware abstraction error: unable to load some persistent items. Some "
    "agents will be restarted",
    1, 3};

// Registered while the test executable is loaded, as source units do; the
// registry lives in another module whose statics may not be built yet.
const AgentLog::Handle gLoadTimeHandle = AgentLog::registerMessage(
    {"TEST_LOAD_TIME", "%s", "Registered by a static initialiser.", 0, 5});

bool sameRecord(const AgentLog::Message &a, const AgentLog::Message &b) {
  return a.name == b.name && a.format == b.format &&
         a.explanation == b.explanation && a.flag == b.flag &&
         a.severity == b.severity;
}

class AgentLogTest : public ::testing::Test {
protected:
  void SetUp() override { AgentLog::raisedDelAll(); }
  void TearDown() override { AgentLog::raisedDelAll(); }
  // Raised lines of these tests go to a file, not to the test's output.
  ScratchDir dir_;
  EnvVar file_{"MICA_AGENTLOG_FILE", dir_.file("agent.log")};
};

TEST_F(AgentLogTest, KeepsRegistrationRecordsExactlyOnePerRegisteringUnit) {
  ASSERT_TRUE(gLoadTimeHandle.valid());
  const auto loaded = AgentLog::registered("TEST_LOAD_TIME");
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[0].severity, 5);

  const AgentLog::Handle a = AgentLog::registerMessage(kHwError);
  const AgentLog::Handle b = AgentLog::registerMessage(kHwError);
  ASSERT_TRUE(a.valid());
  ASSERT_TRUE(b.valid());
  EXPECT_NE(a.id(), b.id()) << "each registering unit has its own handle";
  EXPECT_NE(a.id(), gLoadTimeHandle.id());
  for (const auto &h : {a, b}) {
    const AgentLog::Message &m = AgentLog::message(h);
    EXPECT_EQ(m.name, "HW_ABSTRACTION_ERROR");
    EXPECT_EQ(m.format, "Hardware abstraction error: unable to load item: %s");
    EXPECT_EQ(m.explanation, kHwError.explanation);
    EXPECT_EQ(m.flag, 1);
    EXPECT_EQ(m.severity, 3);
  }
  const auto all = AgentLog::registered("HW_ABSTRACTION_ERROR");
  ASSERT_GE(all.size(), 2u);
  for (const auto &m : all) {
    EXPECT_TRUE(sameRecord(m, kHwError));
  }
  EXPECT_TRUE(AgentLog::registered("NO_SUCH_MESSAGE").empty());

  // A record handed out stays valid while many more are registered.
  const AgentLog::Message *kept = &AgentLog::message(a);
  for (int i = 0; i < 1000; ++i) {
    AgentLog::registerMessage({"TEST_FILLER", "%d", "", 0, 1});
  }
  EXPECT_TRUE(sameRecord(*kept, kHwError));
}

TEST_F(AgentLogTest, RaiseFormatsWithThePrintfFormatAndIsCountedByName) {
  const AgentLog::Handle a = AgentLog::registerMessage(kHwError);
  const AgentLog::Handle b = AgentLog::registerMessage(kHwError);
  const AgentLog::Handle stats = AgentLog::registerMessage(
      {"TEST_STATS", "%d of %u entries, %5.1f%% (%s)", "", 0, 6});
  AgentLog::raise(a, "entryLog::MplsIsem2");
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 1u);
  AgentLog::raise(b, std::string("entryLog::MplsLem"));
  AgentLog::raise(stats, -3, 40u, 12.345, "lem");
  AgentLog::raiseText(stats, "already formatted %d");

  const auto r = AgentLog::raised();
  ASSERT_EQ(r.size(), 4u);
  EXPECT_EQ(r[0].name, "HW_ABSTRACTION_ERROR");
  EXPECT_EQ(r[0].severity, 3);
  EXPECT_EQ(r[0].text, "Hardware abstraction error: unable to load item: "
                       "entryLog::MplsIsem2");
  EXPECT_EQ(
      r[1].text,
      "Hardware abstraction error: unable to load item: entryLog::MplsLem");
  EXPECT_EQ(r[2].text, "-3 of 40 entries,  12.3% (lem)");
  EXPECT_EQ(r[2].severity, 6);
  EXPECT_EQ(r[3].text, "already formatted %d");
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 2u)
      << "raised through either handle, it is the same message";
  EXPECT_EQ(AgentLog::raisedCount("TEST_STATS"), 2u);
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION"), 0u);
  AgentLog::raisedDelAll();
  EXPECT_EQ(AgentLog::raisedCount("HW_ABSTRACTION_ERROR"), 0u);
  EXPECT_TRUE(AgentLog::raised().empty());
}

TEST_F(AgentLogTest, WritesOneLinePerRaiseToTheConfiguredFile) {
  const AgentLog::Handle h = AgentLog::registerMessage(kHwError);
  AgentLog::raise(h, "entryLog::MplsIsem2");
  AgentLog::raise(h, "two\nlines");
  // The variable is read at each raise: another file takes the next lines.
  {
    EnvVar other("MICA_AGENTLOG_FILE", dir_.file("other.log"));
    AgentLog::raise(h, "elsewhere");
  }
  AgentLog::raise(h, "back");
  const auto lines = TraceTest::readLines(dir_.file("agent.log"));
  ASSERT_EQ(lines.size(), 3u) << TraceTest::readFile(dir_.file("agent.log"));
  const std::string head =
      R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} %HW_ABSTRACTION_ERROR-3: )"
      R"(Hardware abstraction error: unable to load item: )";
  EXPECT_TRUE(
      std::regex_match(lines[0], std::regex(head + "entryLog::MplsIsem2$")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(lines[1], std::regex(head + R"(two\\nlines$)")))
      << lines[1];
  EXPECT_TRUE(std::regex_match(lines[2], std::regex(head + "back$")))
      << lines[2];
  const auto other = TraceTest::readLines(dir_.file("other.log"));
  ASSERT_EQ(other.size(), 1u);
  EXPECT_NE(other[0].find("elsewhere"), std::string::npos);
}

TEST_F(AgentLogTest, RemembersTheNewestTenThousandRaises) {
  EnvVar quiet("MICA_AGENTLOG_FILE", "/dev/null");
  const AgentLog::Handle h =
      AgentLog::registerMessage({"TEST_MANY", "#%d", "", 0, 7});
  for (int i = 0; i < 10005; ++i) {
    AgentLog::raise(h, i);
  }
  const auto r = AgentLog::raised();
  ASSERT_EQ(r.size(), 10000u);
  EXPECT_EQ(r.front().text, "#5");
  EXPECT_EQ(r.back().text, "#10004");
  EXPECT_EQ(AgentLog::raisedCount("TEST_MANY"), 10000u);
}

TEST_F(AgentLogTest, RaisingThroughAnUnregisteredHandleStopsTheProcess) {
  ASSERT_DEATH(AgentLog::raise(AgentLog::Handle{}, "x"), "never registered");
}

} // namespace
