#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <stdexcept>

#include "platform/trace/Trace.h"
#include "support/Fork.h"
#include "trace/TestSupport.h"

namespace TraceTestNs {
struct KeyLike {};
template <typename K> struct SwTable {
  struct Row {};
};
} // namespace TraceTestNs

namespace {

using TraceTest::EnvVar;
using TraceTest::ScratchDir;
using TraceTest::StderrCapture;

int gFormatCalls = 0;

struct CountedKey {
  std::uint32_t label;
};

struct ThrowingKey {};

} // namespace

template <> struct fmt::formatter<CountedKey> {
  constexpr auto parse(fmt::format_parse_context &ctx)
      -> decltype(ctx.begin()) {
    return ctx.begin();
  }
  auto format(const CountedKey &k, fmt::format_context &ctx) const
      -> decltype(ctx.out()) {
    ++gFormatCalls;
    return fmt::format_to(ctx.out(), "label:{}", k.label);
  }
};

template <> struct fmt::formatter<ThrowingKey> {
  constexpr auto parse(fmt::format_parse_context &ctx)
      -> decltype(ctx.begin()) {
    return ctx.begin();
  }
  auto format(const ThrowingKey &, fmt::format_context &ctx) const
      -> decltype(ctx.out()) {
    throw std::runtime_error("key formatter broke");
    return ctx.out();
  }
};

namespace {

struct Captured {
  const Trace::Handle *handle;
  Trace::Level level;
  std::string sourceUnit;
  std::string function;
  int line;
  std::string className;
  std::string message;
};

class CollectingSink : public Trace::Sink {
public:
  void write(const Trace::Record &r) override {
    records.push_back({r.handle, r.level, std::string(r.sourceUnit),
                       std::string(r.function), r.line,
                       std::string(r.className), std::string(r.message)});
  }
  std::vector<Captured> records;
};

// Every test starts from an empty configuration and the default sink.
class TraceTestBase : public ::testing::Test {
protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    ::unsetenv("MICA_TRACE");
    ::unsetenv("MICA_TRACE_FILE");
    Trace::configureFromEnvironment();
    Trace::sinkIs(nullptr);
  }
};

using DisabledTrace = TraceTestBase;
using LevelSettings = TraceTestBase;
using Records = TraceTestBase;
using FileSink = TraceTestBase;

TEST_F(DisabledTrace, NeitherEvaluatesNorFormatsAnyArgument) {
  CollectingSink sink;
  Trace::sinkIs(&sink);
  Trace::Handle h("DisabledTraceTable");
  ASSERT_EQ(h.mask(), 0);
  gFormatCalls = 0;
  int count = 0;
  const CountedKey key{100};
  for (Trace::Level level = 0; level < 16; ++level) {
    MICA_TRACE(h, level, "MicaMpls/Test", "DisabledTraceTable", "{} {}", key,
               count++);
  }
  EXPECT_EQ(count, 0);
  EXPECT_EQ(gFormatCalls, 0);
  EXPECT_TRUE(sink.records.empty());

  // Only the level whose bit is set runs, and it runs exactly once.
  h.maskIs(1u << 8);
  MICA_TRACE(h, 7, "MicaMpls/Test", "DisabledTraceTable", "{} {}", key,
             count++);
  MICA_TRACE(h, 9, "MicaMpls/Test", "DisabledTraceTable", "{} {}", key,
             count++);
  EXPECT_EQ(count, 0);
  MICA_TRACE(h, 8, "MicaMpls/Test", "DisabledTraceTable", "{} {}", key,
             count++);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(gFormatCalls, 1);
  ASSERT_EQ(sink.records.size(), 1u);
  EXPECT_EQ(sink.records[0].message, "label:100 0");

  // There is no level 16 or above, whatever the mask.
  h.maskIs(0xffff);
  MICA_TRACE(h, 16, "MicaMpls/Test", "DisabledTraceTable", "{}", count++);
  MICA_TRACE(h, 0xffff, "MicaMpls/Test", "DisabledTraceTable", "{}", count++);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(sink.records.size(), 1u);
}

TEST(LevelList, ParsesNumbersRangesAllAndNoneAndRejectsTheRest) {
  const std::map<std::string, Trace::Mask> good = {
      {"0-3,8", 0x010f}, {"all", 0xffff},   {"none", 0},
      {"15", 0x8000},    {"0", 0x0001},     {" 1 , 2-3 ", 0x000e},
      {"0-15", 0xffff},  {"4-4,4", 0x0010}, {"9,1", 0x0202}};
  for (const auto &[text, mask] : good) {
    Trace::Mask out = 0x5555;
    EXPECT_TRUE(Trace::parseLevels(text, out)) << text;
    EXPECT_EQ(out, mask) << text;
  }
  for (const char *bad : {"", " ", "16", "3-1", "1-", "-1", "a", "1,,2", "1,",
                          "0x3", "1 2", "ALL", "100", "1-16", "2--3"}) {
    Trace::Mask out = 0x5555;
    EXPECT_FALSE(Trace::parseLevels(bad, out)) << bad;
    EXPECT_EQ(out, 0x5555) << "left as it was: " << bad;
  }
}

TEST_F(LevelSettings, LastMatchingEntryWinsAndStarMatchesAPrefix) {
  EnvVar levels("MICA_TRACE",
                "*/1; Mpls*/2 ;MplsLemSwTable/0-3,8;MplsIsem2*/none;;");
  Trace::configureFromEnvironment();
  Trace::Handle lem("MplsLemSwTable");
  Trace::Handle isem("MplsIsem2SwTable");
  Trace::Handle mpls("MplsFec");
  Trace::Handle other("Resolver");
  Trace::Handle prefixOnly("Mpls"); // "Mpls*" matches the bare prefix too
  EXPECT_EQ(lem.mask(), 0x010f);
  EXPECT_EQ(isem.mask(), 0);
  EXPECT_EQ(mpls.mask(), 1u << 2);
  EXPECT_EQ(other.mask(), 1u << 1);
  EXPECT_EQ(prefixOnly.mask(), 1u << 2);

  // A new configuration reaches handles that already exist.
  EnvVar newLevels("MICA_TRACE", "Resolver/all");
  Trace::configureFromEnvironment();
  EXPECT_EQ(other.mask(), 0xffff);
  EXPECT_EQ(lem.mask(), 0);
}

TEST_F(LevelSettings, BadEntriesAreReportedOnceAndTheOthersApply) {
  EnvVar levels("MICA_TRACE",
                "Good/3;Bad/17;NoSlash;Mid*dle/1;/2;Bad2/1-;Also/2,4");
  StderrCapture err;
  Trace::configureFromEnvironment();
  const std::string text = err.take();
  for (const char *entry :
       {"'Bad/17'", "'NoSlash'", "'Mid*dle/1'", "'/2'", "'Bad2/1-'"}) {
    EXPECT_EQ(TraceTest::countOf(text, entry), 1u) << entry << "\n" << text;
  }
  EXPECT_EQ(TraceTest::countOf(text, "MICA_TRACE"), 5u) << text;
  EXPECT_EQ(text.find("'Good/3'"), std::string::npos);
  EXPECT_EQ(text.find("'Also/2,4'"), std::string::npos);

  StderrCapture quiet; // handles take the parsed rules: no new warnings
  Trace::Handle good("Good");
  Trace::Handle also("Also");
  Trace::Handle bad("Bad");
  Trace::Handle middle("Middle");
  EXPECT_EQ(quiet.take(), "");
  EXPECT_EQ(good.mask(), 1u << 3);
  EXPECT_EQ(also.mask(), (1u << 2) | (1u << 4));
  EXPECT_EQ(bad.mask(), 0);
  EXPECT_EQ(middle.mask(), 0);
}

TEST_F(LevelSettings, MaskIsReachesEveryHandleOfTheNameAndLaterOnes) {
  EnvVar levels("MICA_TRACE", "Shared*/1");
  Trace::configureFromEnvironment();
  // Two handles of one name, as a class template instantiated in two
  // modules has, and the one of the generic code.
  static Trace::Handle inOneModule("SharedTable");
  Trace::Handle inAnother("SharedTable");
  Trace::Handle cousin("SharedTableCousin");
  Trace::maskIs("SharedTable", 0x0300);
  EXPECT_EQ(inOneModule.mask(), 0x0300);
  EXPECT_EQ(inAnother.mask(), 0x0300);
  EXPECT_EQ(cousin.mask(), 1u << 1) << "another name keeps its mask";
  {
    Trace::Handle later("SharedTable");
    EXPECT_EQ(later.mask(), 0x0300) << "created after maskIs";
  }
  // A later maskIs of the name replaces the earlier one; a pattern works too
  // and, being newer, wins over both.
  Trace::maskIs("SharedTable", 0x0001);
  EXPECT_EQ(inAnother.mask(), 0x0001);
  Trace::maskIs("Shared*", 0x0004);
  EXPECT_EQ(inAnother.mask(), 0x0004);
  EXPECT_EQ(cousin.mask(), 0x0004);
  Trace::maskIs("SharedTable", 0x0008);
  Trace::Handle afterAll("SharedTable");
  EXPECT_EQ(afterAll.mask(), 0x0008);
  EXPECT_EQ(Trace::Handle("SharedTableCousin").mask(), 0x0004);

  // Handle::maskIs touches that handle only.
  inAnother.maskIs(0x8000);
  EXPECT_EQ(inOneModule.mask(), 0x0008);

  // The environment is the whole configuration again.
  Trace::configureFromEnvironment();
  EXPECT_EQ(inOneModule.mask(), 1u << 1);
  EXPECT_EQ(afterAll.mask(), 1u << 1);
}

TEST(BareTypeName, DropsNamespacesAndTemplateArguments) {
  using TraceTestNs::KeyLike;
  using TraceTestNs::SwTable;
  static_assert(Trace::bareTypeName<KeyLike>() == "KeyLike");
  static_assert(Trace::bareTypeName<SwTable<KeyLike>>() == "SwTable");
  static_assert(Trace::bareTypeName<SwTable<SwTable<int>>>() == "SwTable");
  static_assert(Trace::bareTypeName<SwTable<KeyLike>::Row>() == "Row");
  static_assert(Trace::bareTypeName<CountedKey>() == "CountedKey");
  static_assert(Trace::bareTypeName<const CountedKey>() == "CountedKey");
  static_assert(Trace::bareTypeName<std::string_view>() == "basic_string_view");

  Trace::Handle &h = Trace::handleOf<SwTable<KeyLike>>();
  EXPECT_EQ(h.name(), "SwTable");
  EXPECT_EQ(&h, &Trace::handleOf<SwTable<KeyLike>>()) << "created once";
  EXPECT_FALSE(h.flag());
}

TEST_F(Records, AThrowingFormatterEndsTheProcessNamingTheTrace) {
  Trace::Handle h("ThrowingTable");
  h.maskIs(0xffff);
  ASSERT_DEATH(MICA_TRACE(h, 1, "MicaMpls/Throwing", "ThrowingTable", "{}",
                          ThrowingKey{}),
               "formatter failed.*ThrowingTable.*MicaMpls/Throwing:TestBody:"
               "[0-9]+: key formatter broke");
}

// The file sink writes one line per record; a test sink put in its place
// takes the records, with every field, until it is removed.
TEST_F(FileSink, WritesOneGreppableLinePerRecordUnlessASinkTakesThem) {
  ScratchDir dir;
  const std::string path = dir.file("trace.log");
  EnvVar file("MICA_TRACE_FILE", path);
  EnvVar levels("MICA_TRACE", "MplsIsem2SwTable/8");
  Trace::configureFromEnvironment();
  Trace::Handle h("MplsIsem2SwTable");
  const CountedKey key{16};
  const int line = __LINE__ + 1;
  MICA_TRACE(h, 8, "Mpls/Isem2", "MplsIsem2SwTable", "  key: {}", key);
  MICA_TRACE(h, 8, "MicaMpls/MplsIsem2SwTable", "", "two\nlines\r");
  CollectingSink sink;
  Trace::sinkIs(&sink);
  // One line per call: compilers disagree on the __LINE__ of a macro call
  // that spans lines.
  const int sinkLine = __LINE__ + 1;
  MICA_TRACE(h, 8, "Mpls/Log", "EntryLog", " unit:{} v:{} {}", 3, 7u, true);
  Trace::sinkIs(nullptr);
  MICA_TRACE(h, 8, "", "MplsIsem2SwTable", "last");

  const auto lines = TraceTest::readLines(path);
  ASSERT_EQ(lines.size(), 3u) << TraceTest::readFile(path);
  const std::string head = R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} )" +
                           std::to_string(::getpid()) + " MplsIsem2SwTable 8 ";
  EXPECT_TRUE(std::regex_match(
      lines[0],
      std::regex(head + "Mpls/Isem2:TestBody:" + std::to_string(line) +
                 " MplsIsem2SwTable:   key: label:16$")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(
      lines[1], std::regex(head + R"(MicaMpls/MplsIsem2SwTable:TestBody:\d+ )"
                                  R"(two\\nlines\\r$)")))
      << lines[1];
  EXPECT_TRUE(std::regex_match(
      lines[2], std::regex(head + R"(TestBody:\d+ MplsIsem2SwTable: last$)")))
      << lines[2];
  ASSERT_EQ(sink.records.size(), 1u);
  const Captured &r = sink.records[0];
  EXPECT_EQ(r.handle, &h);
  EXPECT_EQ(r.level, 8);
  EXPECT_EQ(r.sourceUnit, "Mpls/Log");
  EXPECT_EQ(r.function, "TestBody");
  EXPECT_EQ(r.line, sinkLine);
  EXPECT_EQ(r.className, "EntryLog");
  EXPECT_EQ(r.message, " unit:3 v:7 true");
}

TEST_F(FileSink, RecordsOfTwoProcessesNeverInterleaveWithinALine) {
  ScratchDir dir;
  const std::string path = dir.file("shared.log");
  EnvVar file("MICA_TRACE_FILE", path);
  EnvVar levels("MICA_TRACE", "Writer/all");
  Trace::configureFromEnvironment();
  constexpr int kRecords = 400;
  // Long records (beyond PIPE_BUF and beyond the stack buffers) of one
  // letter per process: any interleaving mixes letters within a line.
  std::vector<pid_t> children;
  for (const char letter : {'a', 'b'}) {
    const pid_t pid = TestSupport::forkTied();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      Trace::Handle h("Writer");
      for (int i = 0; i < kRecords; ++i) {
        const std::string body(static_cast<std::size_t>(100 + (i * 37) % 9000),
                               letter);
        MICA_TRACE(h, 5, "Test/Writer", "Writer", "{} {} {}", letter, i, body);
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const auto lines = TraceTest::readLines(path);
  ASSERT_EQ(lines.size(), 2u * kRecords);
  // The head by regex; the long body by hand (std::regex recurses per
  // character and would overflow the stack on 9000 of them).
  const std::regex head(
      R"(^\S+ \S+ (\d+) Writer 5 Test/Writer:TestBody:\d+ Writer: ([ab]) (\d+) )");
  std::map<char, int> next{{'a', 0}, {'b', 0}};
  std::map<char, std::string> pidOf;
  for (const auto &line : lines) {
    const std::string start = line.substr(0, 160);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(start, m, head)) << start;
    const char letter = m[2].str()[0];
    const int i = std::stoi(m[3].str());
    EXPECT_EQ(i, next[letter]++) << "each process's records in its order";
    EXPECT_EQ(
        line.substr(static_cast<std::size_t>(m.length(0))),
        std::string(static_cast<std::size_t>(100 + (i * 37) % 9000), letter));
    auto [it, fresh] = pidOf.emplace(letter, m[1].str());
    EXPECT_EQ(it->second, m[1].str()) << "one pid per writer";
  }
  EXPECT_EQ(next['a'], kRecords);
  EXPECT_EQ(next['b'], kRecords);
  EXPECT_NE(pidOf['a'], pidOf['b']);
}

} // namespace
