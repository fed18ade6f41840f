// The running agent's inspection endpoint, and mpls-show why and top, as
// real processes: a label held back by a missing resource or refused by a
// full hardware table is explained live and, once the agent is gone, from
// the stores; the endpoint pages through collections by cursor, refuses
// what it cannot answer, answers only its owner, and outlives clients that
// send garbage or leave mid-answer.
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "ToolsFixture.h"
#include "tools/inspect/Client.h"

namespace {

using namespace ToolsTest;
using Json = nlohmann::ordered_json;

std::string writeFile(const std::string &name, const std::string &text) {
  const std::string path = ::testing::TempDir() + "inspect-" +
                           std::to_string(::getpid()) + "-" + name;
  std::ofstream(path, std::ios::trunc) << text;
  return path;
}

Exit show(const std::string &agent, std::vector<std::string> args) {
  args.insert(args.begin(),
              {"--agent", agent, "--store", Shm::rootDirectory()});
  return run("mpls-show", args);
}

// The why document, or an empty object while there is none to read yet
// (the agent has not made its store).
Json whyJson(const std::string &agent, const std::string &table,
             const std::string &unit, const std::string &label) {
  const Exit e = show(agent, {"why", table, unit, label, "--json"});
  Json j = Json::parse(e.out, nullptr, false);
  return e.code == 0 && j.is_object() ? j : Json::object();
}

// A raw connection to the endpoint, for what mpls-show never sends.
class Raw {
public:
  explicit Raw(const std::string &path) {
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
    ok_ = ::connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
  }
  ~Raw() { ::close(fd_); }
  bool ok() const { return ok_; }
  void send(const std::string &bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  Json line() {
    std::size_t nl;
    while ((nl = in_.find('\n')) == std::string::npos) {
      char buf[4096];
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) {
        return Json();
      }
      in_.append(buf, static_cast<std::size_t>(n));
    }
    Json j = Json::parse(in_.substr(0, nl), nullptr, false);
    in_.erase(0, nl + 1);
    return j;
  }

private:
  int fd_ = -1;
  bool ok_ = false;
  std::string in_;
};

TEST(Inspect, WhyNamesWhatHoldsALabelLiveAndFromTheStoresOnceTheAgentIsGone) {
  const std::string agent = freshAgent();
  // Adjacency 99 is never resolved; the hardware tables hold 3 entries, so
  // one of the four adjacency-1..4 labels of unit 1 is refused.
  const std::string file =
      writeFile("held.conf", "lem 1 10 adj=1\nlem 1 11 adj=2\nlem 1 12 "
                             "adj=3\nlem 1 13 adj=4\nlem 1 20 adj=99\n"
                             "isem2 1 30 inlif=5\n");
  Program hwWriter("mpls-hw", {"--agent", agent, "--store",
                               Shm::rootDirectory(), "--capacity", "3"});
  Program a("mpls-agent", {"--agent", agent, "--store", Shm::rootDirectory(),
                           file, "--stay", "--hold-adj", "99"});
  const std::string endpoint = MicaMplsInspect::endpointPath(agent);

  // The held label waits on its resource, named by its key (once the
  // resolver has looked at it: until then it is queued, not parked).
  Json held;
  ASSERT_TRUE(eventually([&] {
    held = whyJson(agent, "lem", "1", "20");
    return held.value("source", "") == "agent" &&
           held["verdict"].value("state", "") == "waiting" &&
           held["pending"]["changes"][0].value("waitsOn", "") == "resource";
  })) << held.dump(2);
  EXPECT_EQ(held["desired"]["l2AdjId"], 99);
  EXPECT_EQ(held["pending"]["op"], "write");
  EXPECT_EQ(held["pending"]["changes"][0]["waitsOn"], "resource");
  EXPECT_EQ(held["pending"]["changes"][0]["resource"]["key"]["l2AdjId"], 99);
  EXPECT_EQ(held["committed"], nullptr);
  const Exit text = show(agent, {"why", "lem", "1", "20"});
  EXPECT_EQ(text.code, 0);
  EXPECT_NE(text.out.find("waiting: its resource"), std::string::npos)
      << text.out;

  // Of the four others, three are in the hardware and one was refused.
  std::map<std::string, int> states;
  Json refused;
  ASSERT_TRUE(eventually([&] {
    states.clear();
    for (const char *l : {"10", "11", "12", "13"}) {
      const Json w = whyJson(agent, "lem", "1", l);
      const std::string state =
          w.contains("verdict") ? w["verdict"].value("state", "") : "";
      ++states[state];
      if (state == "refused") {
        refused = w;
      }
    }
    return states["inHardware"] == 3 && states["refused"] == 1;
  })) << Json(states).dump();
  // The hardware writer's record says why, and the agent failed the change.
  EXPECT_EQ(refused["hardware"]["refused"]["reason"], "hardware table full");
  EXPECT_EQ(refused["hardware"]["refused"]["logVersion"],
            refused["committed"]["logVersion"]);
  EXPECT_EQ(refused["pending"], nullptr);

  // top: the held change is the oldest, waiting on a resource.
  const Exit top = show(agent, {"top", "--once", "--json"});
  ASSERT_EQ(top.code, 0) << top.err;
  const Json t = Json::parse(top.out);
  EXPECT_EQ(t["resolver"]["parkedOn"]["resource"], 1);
  EXPECT_EQ(t["oldest"]["label"], 20);
  EXPECT_EQ(t["oldest"]["waitsOn"], "resource");
  EXPECT_EQ(t["tables"].size(), 2u);
  const Exit screens =
      show(agent, {"top", "--count", "2", "--interval", "0.1"});
  EXPECT_EQ(screens.code, 0);
  EXPECT_NE(screens.out.find("oldest waiting: MplsLem unit 1 label 20/0"),
            std::string::npos)
      << screens.out;

  // Bad questions: exit 2 for usage, 4 for what the agent does not have.
  EXPECT_EQ(show(agent, {"why", "lem", "7", "5"}).code, 4);
  EXPECT_EQ(show(agent, {"why", "mpls", "1", "5"}).code, 2);
  EXPECT_EQ(show(agent, {"why", "lem", "1", "2000000"}).code, 2);

  // Owner only.
  struct stat st {};
  ASSERT_EQ(::stat(endpoint.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  // Bad requests get error replies on a connection that keeps working.
  Raw raw(endpoint);
  ASSERT_TRUE(raw.ok());
  raw.send("this is not json\n");
  EXPECT_EQ(raw.line().value("ok", true), false);
  raw.send(std::string(10000, 'x') + "\n");
  const Json tooLong = raw.line();
  EXPECT_NE(tooLong.value("error", "").find("longer than"), std::string::npos);
  raw.send(R"({"op":"walk","object":"table","table":"lem","unit":1,)"
           R"("collection":"entries","after":"zz"})"
           "\n");
  EXPECT_EQ(raw.line().value("ok", true), false);
  raw.send(R"({"op":"object","object":"table","table":"isem2","unit":9})"
           "\n");
  EXPECT_EQ(raw.line().value("ok", true), false);
  raw.send(R"({"op":"nothing","id":7})"
           "\n");
  const Json unknown = raw.line();
  EXPECT_EQ(unknown["id"], 7);
  EXPECT_EQ(unknown["ok"], false);

  // A walk by pages of two visits every entry once: what clients read, the
  // held write among them.
  std::set<std::uint32_t> labels;
  Json after = nullptr;
  for (int page = 0; page < 10; ++page) {
    raw.send(Json{{"op", "walk"},
                  {"object", "table"},
                  {"table", "lem"},
                  {"unit", 1},
                  {"collection", "entries"},
                  {"limit", 2},
                  {"after", after}}
                 .dump() +
             "\n");
    const Json r = raw.line();
    ASSERT_EQ(r["ok"], true) << r.dump();
    for (const Json &e : r["elements"]) {
      EXPECT_TRUE(labels.insert(e["key"]["label"].get<std::uint32_t>()).second);
    }
    after = r["next"];
    if (after.is_null()) {
      break;
    }
  }
  EXPECT_EQ(labels, (std::set<std::uint32_t>{10, 11, 12, 13, 20}));
  raw.send(R"({"op":"object","object":"resolver"})"
           "\n");
  EXPECT_EQ(raw.line()["object"]["parkedOn"]["resource"], 1);

  // Clients that ask a lot and leave without reading the answers.
  for (int i = 0; i < 20; ++i) {
    Raw gone(endpoint);
    std::string many;
    for (int j = 0; j < 200; ++j) {
      many +=
          R"({"op":"walk","object":"adjacencies","collection":"entry","limit":1000})"
          "\n";
    }
    gone.send(many);
  }
  raw.send(R"({"op":"tables"})"
           "\n");
  EXPECT_EQ(raw.line()["tables"].size(), 2u);

  const Exit stopped = a.stop(SIGTERM);
  EXPECT_EQ(stopped.code, 1) << stopped.err; // the held change is unconfirmed
  EXPECT_FALSE(MicaMplsInspect::Client(endpoint).connected());

  // The stores alone: no pending change, but the committed and the
  // hardware's sides.
  const Json gone = whyJson(agent, "lem", "1", "20");
  EXPECT_EQ(gone["source"], "store");
  EXPECT_EQ(gone["verdict"]["state"], "absent");
  int inHw = 0, refusedNow = 0;
  for (const char *l : {"10", "11", "12", "13"}) {
    const Json w = whyJson(agent, "lem", "1", l);
    const std::string s = w["verdict"]["state"];
    inHw += s == "inHardware";
    if (s == "refused") {
      ++refusedNow;
      EXPECT_EQ(w["hardware"]["refused"]["reason"], "hardware table full");
    }
  }
  EXPECT_EQ(inHw, 3);
  EXPECT_EQ(refusedNow, 1);
  EXPECT_EQ(show(agent, {"top", "--once"}).code, 4);
}

} // namespace
