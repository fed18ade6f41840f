// mpls-agent as a real process beside a real mpls-hw: a killed agent's
// successor leaves the hardware tables equal to its desired set, bad input
// is refused with its place and leaves the store as it was, a second agent
// on one store is refused, SIGHUP applies a changed file, mpls-show reads
// the live store, and an agent without a hardware writer says so and gives
// up.
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <xxhash.h>

#include <filesystem>
#include <set>

#include "ToolsFixture.h"

namespace {

using namespace ToolsTest;
using Json = nlohmann::json;
namespace fs = std::filesystem;

// (table, unit) -> labels, as a desired-state file names them.
using Labels = std::map<std::pair<std::string, unsigned>, std::set<unsigned>>;

std::string tempPrefix() {
  return "agent-" + std::to_string(::getpid()) + "-";
}

std::string tempFile(const std::string &name) {
  return ::testing::TempDir() + tempPrefix() + name;
}

std::string writeFile(const std::string &name, const std::string &text) {
  std::string path = tempFile(name);
  std::ofstream(path, std::ios::trunc) << text;
  return path;
}

Labels labelsOf(const std::string &path) {
  Labels out;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    std::istringstream f(line);
    std::string table, key;
    unsigned unit = 0;
    if (line.empty() || line[0] == '#' || !(f >> table >> unit >> key)) {
      continue;
    }
    out[{table, unit}].insert(static_cast<unsigned>(std::stoul(key)));
  }
  return out;
}

// The hardware tables of units 1 to 3, in the same form.
Labels hwLabels(HwView &hw) {
  Labels out;
  for (unsigned u = 1; u <= 3; ++u) {
    for (const auto &[label, field] : hw.table<Isem2>(u)) {
      out[{"isem2", u}].insert(label);
    }
    for (const auto &[label, field] : hw.table<Lem>(u)) {
      out[{"lem", u}].insert(label);
    }
  }
  return out;
}

std::vector<std::string> agentArgs(const std::string &agent,
                                   std::vector<std::string> more) {
  more.insert(more.begin(),
              {"--agent", agent, "--store", Shm::rootDirectory()});
  return more;
}

Exit agentRun(const std::string &agent, std::vector<std::string> args) {
  return run("mpls-agent", agentArgs(agent, std::move(args)));
}

bool contains(const std::string &text, const std::string &what) {
  return text.find(what) != std::string::npos;
}

// Every entry's path, with a regular file's size and a hash of its bytes.
std::string treeDigest(const std::string &dir) {
  std::map<std::string, std::string> entries;
  std::vector<char> buf(1 << 20);
  for (const auto &e : fs::recursive_directory_iterator(dir)) {
    std::string digest = "(not a file)";
    if (e.is_regular_file()) {
      XXH3_state_t *state = XXH3_createState();
      XXH3_64bits_reset(state);
      std::ifstream in(e.path(), std::ios::binary);
      while (in.read(buf.data(), static_cast<std::streamsize>(buf.size())) ||
             in.gcount() > 0) {
        XXH3_64bits_update(state, buf.data(),
                           static_cast<std::size_t>(in.gcount()));
      }
      digest =
          fmt::format("{} {:016x}", e.file_size(), XXH3_64bits_digest(state));
      XXH3_freeState(state);
    }
    entries[e.path().string()] = std::move(digest);
  }
  std::string out;
  for (const auto &[path, digest] : entries) {
    out.append(path).append(": ").append(digest).append("\n");
  }
  return out;
}

// Agents get fresh names (freshAgent: their store instances go when the
// process exits); each test's files are removed when it ends.
class AgentInstances : public ::testing::Test {
protected:
  void TearDown() override {
    std::error_code ec;
    for (const auto &e : fs::directory_iterator(::testing::TempDir(), ec)) {
      if (e.path().filename().string().starts_with(tempPrefix())) {
        fs::remove(e.path(), ec);
      }
    }
  }
};
using AgentStory = AgentInstances;
using AgentInput = AgentInstances;
using AgentStore = AgentInstances;
using AgentReload = AgentInstances;
using AgentShow = AgentInstances;
using AgentSummary = AgentInstances;
using AgentStop = AgentInstances;
using AgentGenerate = AgentInstances;
using AgentConfirm = AgentInstances;

TEST_F(AgentStory, AfterAKillAndARestartTheHardwareEqualsTheDesiredSet) {
  const std::string agent = freshAgent();
  const std::string one = tempFile("one.conf"), two = tempFile("two.conf");
  ASSERT_EQ(agentRun(agent, {"--generate", "300", "--seed", "3", "--units",
                             "1,2,3", "--emit", one})
                .code,
            0);
  ASSERT_EQ(agentRun(agent, {"--generate", "300", "--seed", "3", "--units",
                             "1,2", "--churn", "10", "--emit", two})
                .code,
            0);
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  HwView hw(agent);
  {
    // 1800 changes at 300 a second: killed while it writes.
    Program first("mpls-agent", agentArgs(agent, {one, "--rate", "300"}));
    ASSERT_TRUE(eventually(
        [&] { return hw.published<Isem2>() > 0 && hw.published<Lem>() > 0; }));
    EXPECT_EQ(first.stop(SIGKILL).code, 128 + SIGKILL);
  }
  const Exit second = agentRun(agent, {two, "--json"});
  ASSERT_EQ(second.code, 0) << second.err;
  const Json sum = Json::parse(second.out);
  EXPECT_EQ(sum["outcome"], "every change confirmed");
  EXPECT_GT(sum["restore"]["entriesRestored"], 0);
  EXPECT_GT(sum["restore"]["reconciled"], 0); // unit 3
  EXPECT_EQ(sum["changes"]["failed"], 0);

  Labels want = labelsOf(two);
  EXPECT_EQ(hwLabels(hw), want);
  const Exit verify = agentRun(agent, {"--verify", two});
  EXPECT_EQ(verify.code, 0) << verify.out << verify.err;
  EXPECT_TRUE(contains(verify.out, "equal the desired set")) << verify.out;
  hwWriter.stop(SIGTERM);
}

TEST_F(AgentInput, BadInputNamesItsPlaceExitsTwoAndWritesNothing) {
  struct Case {
    std::string text;              // the file ("" : no file written)
    std::vector<std::string> args; // before the file
    std::string message;
  };
  const std::vector<Case> cases = {
      {"lem 1 100\n", {}, ":1: adj: missing"},
      {"lem 1\n", {}, ":1: too few fields"},
      {"# ok\nmpls 1 5 adj=1\n", {}, ":2: table 'mpls': unknown table"},
      {"lem 7 5 adj=1\n",
       {"--units", "1,2"},
       ":1: unit '7': not a unit this agent drives (--units 1,2)"},
      {"lem 1 1048576 adj=1\n", {}, ":1: label '1048576': above 1048575"},
      {"lem 1 5/256 adj=1\n", {}, ":1: qualifier '256': above 255"},
      {"lem 1 5 adj=1\nlem 1 5/0 adj=2\n",
       {},
       ":2: key 'lem unit 1 label 5/0': duplicate of line 1"},
      {"lem 1 5 adj=0\n", {}, ":1: adj '0': 0 is the null adjacency"},
      {"isem2 1 5 inlif=3 data=1\nisem2 2 6 inlif=3 data=2\n",
       {},
       ":2: data '2': in-LIF 3 has data=1 at line 1"},
      {"lem 1 5 adj=1 vrf=2\n", {}, ":1: field 'vrf=2': unknown"},
      {"", {}, "cannot read: No such file or directory"},
      {"lem 1 5 adj=1\n", {"--units", "1,x"}, "--units"},
      {"lem 1 5 adj=1\n", {"--bogus"}, "--bogus"},
  };
  int n = 0;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.message);
    const std::string agent = freshAgent();
    const std::string name = "bad" + std::to_string(n++) + ".conf";
    std::string file = tempFile(name);
    fs::remove(file);
    if (!c.text.empty()) {
      file = writeFile(name, c.text);
    }
    std::vector<std::string> args = c.args;
    args.push_back(file);
    const Exit e = agentRun(agent, args);
    EXPECT_EQ(e.code, 2);
    EXPECT_TRUE(contains(e.err, c.message)) << e.err;
    EXPECT_FALSE(fs::exists(Shm::rootDirectory() + "/" + agent + ".0"));
  }
  // The example in the repository is a valid file.
  const Exit example =
      agentRun(freshAgent(), {std::string(MICA_EXAMPLES_DIR) + "/labels.conf",
                              "--emit", "-"});
  EXPECT_EQ(example.code, 0) << example.err;
  EXPECT_TRUE(contains(example.out, "lem 2 1048575/0 adj=9")) << example.out;

  // A store that holds state stays byte for byte what it was.
  Agent existing(freshAgent());
  existing.lem->mountSlateConfig(1, 0);
  existing.write<Lem>(1, 100, 7);
  existing.stop();
  const std::string before = treeDigest(existing.directory());
  const Exit e = agentRun(existing.name(),
                          {writeFile("held.conf", "lem 1 5 adj=1\nlem 1\n")});
  EXPECT_EQ(e.code, 2);
  EXPECT_TRUE(contains(e.err, "held.conf:2: too few fields")) << e.err;
  EXPECT_EQ(treeDigest(existing.directory()), before);
}

// Input that would not end, or that goes on beyond a file's bounds (4 Mi
// lines of 4096 bytes), is refused before anything past them is read.
TEST_F(AgentInput, WhatIsNoRegularFileOrGoesBeyondTheBoundsIsRefused) {
  const std::string fifo = tempFile("fifo.conf");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string lines(4194304 - 2, '\n');
  const std::string line = "# " + std::string(4096 - 2, 'x');
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/dev/zero", "/dev/zero: cannot read: is a character device, not a "
                    "regular file"},
      {fifo, "fifo.conf: cannot read: is a FIFO, not a regular file"},
      {::testing::TempDir(), "cannot read: is a directory, not a regular file"},
      {writeFile("long.conf", "lem 1 5 adj=1\n" + line + "x\nlem 1 6 adj=1\n"),
       "long.conf:2: line longer than 4096 bytes; reading stopped"},
      {writeFile("many.conf", "lem 1 5 adj=1\n" + lines + "\n\n"),
       "many.conf:4194305: more than 4194304 lines; reading stopped"},
  };
  for (const auto &[file, message] : cases) {
    SCOPED_TRACE(message);
    const std::string agent = freshAgent();
    const Exit e = agentRun(agent, {file});
    EXPECT_EQ(e.code, 2);
    EXPECT_TRUE(contains(e.err, message)) << e.err;
    EXPECT_FALSE(fs::exists(Shm::rootDirectory() + "/" + agent + ".0"));
  }
  // A file at both bounds is read like any other.
  const Exit most = agentRun(
      freshAgent(), {writeFile("most.conf", "lem 1 5 adj=1\n" + lines + line),
                     "--emit", "-"});
  EXPECT_EQ(most.code, 0) << most.err;
  EXPECT_TRUE(contains(most.out, "\nlem 1 5/0 adj=1\n")) << most.out;
}

TEST_F(AgentStore, ASecondAgentOnTheSameStoreIsRefused) {
  const std::string agent = freshAgent();
  const std::string file = writeFile("lock.conf", "lem 1 5 adj=1\n");
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  Program first("mpls-agent", agentArgs(agent, {file, "--stay"}));
  HwView hw(agent);
  ASSERT_TRUE(eventually([&] { return hw.table<Lem>(1).size() == 1; }));
  const Exit second = agentRun(agent, {file});
  EXPECT_EQ(second.code, 3);
  EXPECT_TRUE(contains(second.err, "held by another running agent"))
      << second.err;
  const Exit e = first.stop(SIGTERM);
  EXPECT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.out, "summary: stopped by SIGTERM")) << e.out;
}

TEST_F(AgentReload, SighupAppliesTheDifferenceAndKeepsTheSetOnABadFile) {
  const std::string agent = freshAgent();
  const std::string file = writeFile(
      "reload.conf", "isem2 1 100 inlif=5 data=7\nisem2 1 101 inlif=5 "
                     "data=7\nlem 1 100 adj=3\nlem 2 100/4 adj=3\n");
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  Program a("mpls-agent", agentArgs(agent, {file, "--stay"}));
  HwView hw(agent);
  ASSERT_TRUE(eventually([&] { return hwLabels(hw) == labelsOf(file); }));
  const auto lemBefore = hw.table<Lem>(2);

  // 101 goes, 102 comes, the LEM entry of unit 2 points at another FEC.
  writeFile("reload.conf", "isem2 1 100 inlif=5 data=7\nisem2 1 102 inlif=6\n"
                           "lem 1 100 adj=3\nlem 2 100/4 adj=9\n");
  a.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] {
    return hwLabels(hw) == labelsOf(file) && hw.table<Lem>(2) != lemBefore;
  }));
  EXPECT_EQ(agentRun(agent, {"--verify", file}).code, 0);

  writeFile("reload.conf", "isem2 1 100 inlif=5\nlem 1\n");
  a.signal(SIGHUP);
  ASSERT_TRUE(
      eventually([&] { return contains(a.errSoFar(), "not applied"); }));
  // A FIFO in the file's place (which no one writes) is refused at once.
  fs::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  a.signal(SIGHUP);
  ASSERT_TRUE(eventually([&] {
    return contains(a.errSoFar(), "reload.conf: cannot read: is a FIFO");
  }));
  const Exit e = a.stop(SIGTERM);
  EXPECT_EQ(e.code, 0) << e.err;
  EXPECT_TRUE(contains(e.err, "reload.conf:2: too few fields")) << e.err;
  EXPECT_EQ(hw.table<Lem>(1).size(), 1u); // the previous set stayed
  EXPECT_EQ(hw.table<Isem2>(1).size(), 2u);
}

TEST_F(AgentShow, ShowReadsTheLiveStoreAsJsonWhileTheAgentWrites) {
  const std::string agent = freshAgent();
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  // 4000 changes at 2000 a second.
  Program a("mpls-agent",
            agentArgs(agent, {"--generate", "1000", "--rate", "2000"}));
  HwView hw(agent);
  std::uint64_t lastConfirmed = 0;
  int shown = 0;
  // Until the hardware has all 2000 LEM changes (or a hang ends the wait).
  eventually([&] {
    const Exit s =
        run("mpls-show", {"--agent", agent, "--store", Shm::rootDirectory(),
                          "summary", "--json"});
    if (s.code == 4 && shown == 0) {
      return false; // the agent has not made its store yet
    }
    EXPECT_EQ(s.code, 0) << s.err;
    const Json doc = Json::parse(s.out);
    EXPECT_EQ(doc["corruptRecords"], 0);
    const Json &isem2 = doc["tables"][0];
    EXPECT_EQ(isem2["table"], "MplsIsem2");
    if (isem2["confirmedVersion"].is_number()) {
      const auto v = isem2["confirmedVersion"].get<std::uint64_t>();
      EXPECT_GE(v, lastConfirmed); // never goes back
      EXPECT_LE(v, isem2["loggedVersion"].get<std::uint64_t>());
      lastConfirmed = v;
    }
    ++shown;
    return hw.published<Lem>() >= 2000;
  });
  EXPECT_GT(shown, 0);
  const Exit e = a.stop();
  EXPECT_EQ(e.code, 0) << e.err;
  // Not a terminal: progress comes as plain lines.
  EXPECT_TRUE(contains(e.err, "mpls-agent: replay: ")) << e.err;
}

TEST_F(AgentSummary, ARestartCountsWhatItRestoredSweptReconciledAndRewrote) {
  const std::string agent = freshAgent();
  const std::string before =
      writeFile("before.conf", "isem2 1 100 inlif=1 data=5\n"
                               "isem2 1 101 inlif=1 data=5\n"
                               "isem2 2 100 inlif=2\n"
                               "lem 1 100 adj=1\n"
                               "lem 1 101 adj=2\n"
                               "lem 3 100 adj=3\n"
                               "isem2 3 7 inlif=3\n");
  const std::string after = writeFile("after.conf",
                                      "isem2 1 100 inlif=1 data=5\n" // same
                                      "isem2 1 102 inlif=1 data=5\n" // new
                                      "isem2 2 100 inlif=4\n" // elsewhere
                                      "lem 1 100 adj=1\n"     // same
                                      "lem 1 101 adj=5\n"     // elsewhere
                                      "lem 2 9 adj=5\n");     // new
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  ASSERT_EQ(agentRun(agent, {before}).code, 0);
  const Exit e = agentRun(agent, {after, "--json"});
  ASSERT_EQ(e.code, 0) << e.err;
  const Json sum = Json::parse(e.out);
  EXPECT_EQ(sum["units"], Json::array({1, 2}));
  EXPECT_EQ(sum["restore"], (Json{{"entriesRestored", 5},
                                  {"resourcesRestored", 6},
                                  {"swept", 1},      // isem2 1 101
                                  {"reconciled", 2}, // unit 3
                                  {"resourcesReleased", 2}}));
  const Json &c = sum["changes"];
  EXPECT_EQ(c["writes"], 6);
  EXPECT_EQ(c["unchanged"], 2);
  EXPECT_EQ(c["confirmed"], 4);
  EXPECT_EQ(c["failed"], 0);
  EXPECT_EQ(sum["latencyMs"]["samples"], 4);
  EXPECT_EQ(sum["resources"]["inLifs"]["inUse"], 2);
  EXPECT_EQ(sum["resources"]["fecs"]["inUse"], 2);
  std::map<std::string, int> entries;
  for (const Json &row : sum["tables"]) {
    entries[row["table"].get<std::string>() + " " + row["unit"].dump()] =
        row["entries"].get<int>();
  }
  EXPECT_EQ(entries, (std::map<std::string, int>{{"MplsIsem2 1", 2},
                                                 {"MplsIsem2 2", 1},
                                                 {"MplsIsem2 3", 0},
                                                 {"MplsLem 1", 2},
                                                 {"MplsLem 2", 1},
                                                 {"MplsLem 3", 0}}));

  // The checker sees the old set as what it is: no longer in the hardware.
  const Exit old = agentRun(agent, {"--verify", before});
  EXPECT_EQ(old.code, 1);
  EXPECT_TRUE(contains(old.out, "differ from the desired set: 7 difference"))
      << old.out;
  EXPECT_TRUE(contains(old.out, "missing in the hardware: isem2 unit 1 "
                                "label 101/0"))
      << old.out;
  EXPECT_TRUE(contains(old.out, "in the hardware, not desired: lem unit 2 "
                                "label 9/0"))
      << old.out;
  EXPECT_EQ(agentRun(freshAgent(), {"--verify", after}).code, 4);
}

// A unit's configuration lost while the agent is down, of a unit it no
// longer drives, then of one it drives: each time the agent says so, the
// hardware writer rebuilds, and the hardware drops what neither the set nor
// the agent's store holds any more.
TEST_F(AgentSummary, LostConfigurationsAreRebuiltFromDrivenOrNot) {
  const std::string agent = freshAgent();
  const std::string before = writeFile("lost-0.conf", "isem2 1 100 inlif=1\n"
                                                      "isem2 2 100 inlif=2\n"
                                                      "isem2 2 101 inlif=2\n"
                                                      "isem2 3 7 inlif=3\n"
                                                      "lem 3 100 adj=3\n");
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  ASSERT_EQ(agentRun(agent, {before}).code, 0);
  const auto lose = [&](unsigned unit, const std::string &set) {
    SCOPED_TRACE(unit);
    const std::string cfg = Shm::rootDirectory() + "/" + agent + ".0/" +
                            Isem2::B::Constants::configSlatePath(unit);
    ASSERT_EQ(::unlink(cfg.c_str()), 0) << cfg;
    const Exit e = agentRun(agent, {set});
    ASSERT_EQ(e.code, 0) << e.err;
    EXPECT_TRUE(contains(e.err, "unable to load item: entryCfg::MplsIsem2"))
        << e.err;
    const Exit verify = agentRun(agent, {"--verify", set});
    EXPECT_EQ(verify.code, 0) << verify.out << verify.err;
  };
  lose(3, writeFile("lost-1.conf", "isem2 1 100 inlif=1\n"
                                   "isem2 2 100 inlif=2\n"
                                   "isem2 2 101 inlif=2\n"));
  lose(2, writeFile("lost-2.conf", "isem2 1 100 inlif=1\n"
                                   "isem2 2 101 inlif=2\n"));
  EXPECT_TRUE(contains(hwWriter.stop(SIGTERM).err,
                       "MplsIsem2: the agent asked for a rebuild"));
}

TEST_F(AgentStop, SigintStopsWithTheSummaryAndSaysWhatWasLeft) {
  const std::string agent = freshAgent(); // no hardware writer
  Program a("mpls-agent", agentArgs(agent, {"--generate", "10"}));
  ASSERT_TRUE(
      eventually([&] { return contains(a.errSoFar(), "replay written"); }));
  a.signal(SIGINT);
  const Exit e = a.stop();
  EXPECT_EQ(e.code, 1);
  EXPECT_TRUE(
      contains(e.out, "summary: stopped by SIGINT with 40 changes unconfirmed"))
      << e.out;
}

TEST_F(AgentGenerate, SetsAreDeterministicNestedAndChurnedAsAsked) {
  const auto emit = [this](std::vector<std::string> args) {
    args.insert(args.end(),
                {"--generate", "200", "--seed", "5", "--emit", "-"});
    const Exit e = agentRun(freshAgent(), args);
    EXPECT_EQ(e.code, 0) << e.err;
    std::map<std::string, std::string> set; // key -> what it points at
    std::istringstream in(e.out);
    for (std::string line; std::getline(in, line);) {
      if (line[0] != '#') {
        const auto third =
            line.find(' ', line.find(' ', line.find(' ') + 1) + 1);
        set[line.substr(0, third)] = line.substr(third + 1);
      }
    }
    return set;
  };
  const auto three = emit({"--units", "1,2,3"});
  EXPECT_EQ(three.size(), 1200u);
  EXPECT_EQ(emit({"--units", "1,2,3"}), three);
  const auto two = emit({"--units", "1,2"});
  EXPECT_EQ(two.size(), 800u);
  for (const auto &[key, value] : two) {
    EXPECT_EQ(three.at(key), value) << key;
  }
  const auto churned = emit({"--units", "1,2", "--churn", "10"});
  std::size_t changed = 0, fresh = 0;
  for (const auto &[key, value] : churned) {
    const auto it = two.find(key);
    fresh += it == two.end() ? 1 : 0;
    changed += it != two.end() && it->second != value ? 1 : 0;
  }
  const std::size_t dropped = two.size() - (churned.size() - fresh);
  EXPECT_EQ(fresh, 80u); // 10% more in each of 4 tables
  EXPECT_GT(changed, 40u);
  EXPECT_LT(changed, 120u);
  EXPECT_GT(dropped, 40u);
  EXPECT_LT(dropped, 120u);
}

TEST_F(AgentConfirm, WhatTheHardwareRefusesFailsAndAnIdenticalWriteRetriesIt) {
  const std::string agent = freshAgent();
  const std::string set = tempFile("full.conf");
  ASSERT_EQ(run("mpls-agent", {"--generate", "20", "--seed", "5", "--units",
                               "1", "--emit", set})
                .code,
            0);
  Program hwWriter("mpls-hw", {"--agent", agent, "--store",
                               Shm::rootDirectory(), "--capacity", "10"});
  // Half of each table does not fit: those changes fail, none is done.
  Exit e = agentRun(agent, {set});
  EXPECT_EQ(e.code, 1) << e.out << e.err;
  EXPECT_TRUE(contains(e.out, "20 confirmed by the hardware, 0 unchanged, "
                              "20 failed"))
      << e.out;
  EXPECT_TRUE(contains(e.out, "failures   20: refused by the hardware: "
                              "hardware table full"))
      << e.out;
  e = agentRun(agent, {"--verify", set});
  EXPECT_EQ(e.code, 1);
  EXPECT_TRUE(contains(e.out, ": refused by the hardware (hardware table "
                              "full, "))
      << e.out;
  Exit shown = run("mpls-show", {"--agent", agent, "--store",
                                 Shm::rootDirectory(), "hw", "lem", "1",
                                 "--json"});
  ASSERT_EQ(shown.code, 0) << shown.err;
  const Json hwDoc = Json::parse(shown.out);
  EXPECT_EQ(hwDoc["entries"].size(), 10u);
  ASSERT_EQ(hwDoc["refused"].size(), 10u);
  EXPECT_EQ(hwDoc["refused"][0]["reason"], "hardware table full");

  // A set of only the refused labels: their identical writes are logged
  // again, and refused again while the sweep has not made room yet; once it
  // has, the same set goes in.
  HwView hw(agent);
  const auto inHw = hwLabels(hw);
  const std::string rest = tempFile("rest.conf");
  {
    std::ifstream in(set);
    std::ofstream out(rest);
    for (std::string line; std::getline(in, line);) {
      std::istringstream f(line);
      std::string table, key;
      unsigned unit = 0;
      if (f >> table >> unit >> key &&
          !inHw.at({table, unit}).count(std::stoul(key))) {
        out << line << "\n";
      }
    }
  }
  e = agentRun(agent, {rest});
  EXPECT_EQ(e.code, 1) << e.out << e.err;
  EXPECT_TRUE(contains(e.out, "20 failed")) << e.out;
  e = agentRun(agent, {rest});
  EXPECT_EQ(e.code, 0) << e.out << e.err;
  EXPECT_TRUE(contains(e.out, "20 confirmed by the hardware, 0 unchanged, "
                              "0 failed"))
      << e.out;
  EXPECT_EQ(agentRun(agent, {"--verify", rest}).code, 0);
  shown = run("mpls-show", {"--agent", agent, "--store", Shm::rootDirectory(),
                            "summary", "--json"});
  ASSERT_EQ(shown.code, 0) << shown.err;
  const Json summary = Json::parse(shown.out);
  for (const Json &t : summary["tables"]) {
    for (const Json &u : t["units"]) {
      EXPECT_EQ(u["hwRefused"], 0) << u;
    }
  }
  hwWriter.stop(SIGTERM);
}

TEST_F(AgentConfirm, WaitsForTheHardwareWriterAndVersionsNeverGoBack) {
  const std::string agent = freshAgent();
  const Exit e =
      agentRun(agent, {"--generate", "10", "--confirm-timeout", "2"});
  EXPECT_EQ(e.code, 1);
  EXPECT_TRUE(contains(e.err, "waiting for the hardware writer (mpls-hw "
                              "--agent " +
                                  agent + "): 40 changes unconfirmed"))
      << e.err;
  EXPECT_TRUE(contains(e.err, "confirmed nothing for 2 s")) << e.err;

  // The writer takes those changes. Then, while the writer's store stays,
  // the agent's store goes behind the versions it confirmed, in every way
  // it can: made anew, restored from an older copy, its change logs made
  // anew, its version word damaged low after its newest changes (removes)
  // were retired. Each time the agent goes on above what was confirmed,
  // the writer rebuilds its tables, and both end equal to the new set.
  ASSERT_EQ(hwOnce(agent).code, 0);
  Program hwWriter("mpls-hw",
                   {"--agent", agent, "--store", Shm::rootDirectory()});
  HwView hw(agent);
  const std::string dir = Shm::rootDirectory() + "/" + agent + ".0";
  const std::string copy = tempFile("older-copy");
  Version last = hw.published<Isem2>();
  int step = 0;
  const auto drive = [&](const std::string &what, std::uint32_t n,
                         std::uint32_t churn) {
    SCOPED_TRACE(what);
    const std::string set = tempFile("regress.conf");
    ASSERT_EQ(run("mpls-agent",
                  {"--generate", std::to_string(n), "--seed",
                   std::to_string(++step), "--churn", std::to_string(churn),
                   "--units", "1,2", "--emit", set})
                  .code,
              0);
    const Exit e = agentRun(agent, {set});
    EXPECT_EQ(e.code, 0) << e.err;
    EXPECT_EQ(agentRun(agent, {"--verify", set}).code, 0);
    const Version now = hw.published<Isem2>();
    EXPECT_GT(now, last);
    last = now;
    std::remove(set.c_str());
  };
  // The store's files, without the agent's FIFO.
  const auto copyStore = [](const std::string &from, const std::string &to) {
    fs::remove_all(to);
    for (const auto &e : fs::recursive_directory_iterator(from)) {
      const fs::path target = to / fs::relative(e.path(), from);
      if (e.is_directory()) {
        fs::create_directories(target);
      } else if (e.is_regular_file()) {
        fs::create_directories(target.parent_path());
        fs::copy_file(e.path(), target);
      }
    }
  };

  fs::remove_all(dir);
  drive("a store made anew", 6, 0);
  copyStore(dir, copy);
  drive("the set changes", 8, 20);
  fs::remove_all(dir);
  copyStore(copy, dir);
  drive("a store restored from an older copy", 8, 30);
  ::unlink(changeLogFile<Isem2>(dir).c_str());
  ::unlink(changeLogFile<Lem>(dir).c_str());
  drive("change logs made anew", 8, 10);
  drive("removes at the end", 3, 0);
  for (const std::string &log : {changeLogFile<Isem2>(dir),
                                 changeLogFile<Lem>(dir)}) {
    // The scratchpad of the change log's one collection: 8 bytes into its
    // control block, which follows the 4096-byte header.
    std::fstream f(log, std::ios::in | std::ios::out | std::ios::binary);
    const std::uint64_t low = 1;
    f.seekp(4096 + 8);
    f.write(reinterpret_cast<const char *>(&low), sizeof low);
    ASSERT_TRUE(f.good()) << log;
  }
  drive("a version word damaged low", 9, 20);
  hwWriter.stop(SIGTERM);
  fs::remove_all(copy);
}

} // namespace
