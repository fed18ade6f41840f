#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "platform/trace/RingFormat.h"
#include "platform/trace/Trace.h"
#include "support/Fork.h"
#include "trace/TestSupport.h"

namespace {

using TraceTest::EnvVar;
using TraceTest::ScratchDir;
namespace rf = Trace::ringfile;

std::vector<std::string> texts(const std::vector<Trace::RingMessage> &ms) {
  std::vector<std::string> out;
  for (const auto &m : ms) {
    out.push_back(m.text);
  }
  return out;
}

void sweep(std::int64_t count) {
  MICA_TRACE_RING("MicaMpls/MplsLemSwTable", "MplsLemSwTable",
                  "Swept {} entries", count);
}

void mark(std::int64_t count) {
  MICA_TRACE_RING("MicaMpls/MplsLemSwTable", "MplsLemSwTable",
                  "Marked {} entries", count);
}

// Each test gets a trace file of its own (or none), configured before it
// runs and forgotten after.
class Ring : public ::testing::Test {
protected:
  void SetUp() override { configure(path_); }
  void TearDown() override {
    ::unsetenv("MICA_TRACE_FILE");
    Trace::configureFromEnvironment();
  }
  static void configure(const std::string &traceFile) {
    if (traceFile.empty()) {
      ::unsetenv("MICA_TRACE_FILE");
    } else {
      ::setenv("MICA_TRACE_FILE", traceFile.c_str(), 1);
    }
    Trace::configureFromEnvironment();
  }
  std::string ring() const { return path_ + ".ring"; }
  ScratchDir dir_;
  std::string path_ = dir_.file("agent.trace");
};

using RingReader = Ring;

TEST_F(Ring, MessagesComeBackOldestFirstWithTheirTextRendered) {
  const std::uint64_t before =
      static_cast<std::uint64_t>(std::time(nullptr)) * 1000000000ull;
  sweep(3);
  mark(12);
  sweep(-1);
  const auto ms = Trace::readRing(ring());
  EXPECT_EQ(texts(ms),
            (std::vector<std::string>{"Swept 3 entries", "Marked 12 entries",
                                      "Swept -1 entries"}));
  ASSERT_EQ(ms.size(), 3u);
  EXPECT_EQ(ms[0].pid, static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(ms[0].sourceUnit, "MicaMpls/MplsLemSwTable");
  EXPECT_EQ(ms[0].className, "MplsLemSwTable");
  EXPECT_EQ(ms[0].function, "sweep");
  EXPECT_GT(ms[0].line, 0);
  EXPECT_NE(ms[0].line, ms[1].line);
  EXPECT_GE(ms[0].timeNs, before);
  EXPECT_LE(ms[0].timeNs, ms[2].timeNs);
  // No trace file of its own: the ring needs no trace to be written.
  EXPECT_FALSE(std::filesystem::exists(path_));

  // A registration that is not a message of this file (more arguments than
  // the format takes, or fewer) still reads back, as raw text.
  static const auto odd =
      Trace::registerMessage("Test/Ring", 1, "Odd", "f", "two {} and {}", "ii");
  const std::int64_t one[] = {5};
  Trace::ringWrite(odd, one, 1);
  const std::int64_t five[] = {1, 2, 3, 4, 5};
  static const auto many = Trace::registerMessage("Test/Ring", 2, "Many", "f",
                                                  "{} {} {} {}", "iiiii");
  Trace::ringWrite(many, five, 5);
  const auto more = Trace::readRing(ring());
  ASSERT_EQ(more.size(), 5u);
  EXPECT_EQ(more[3].text, "two {} and {} [5]");
  EXPECT_EQ(more[4].text, "1 2 3 4") << "four arguments are kept";

  // Registering the same message again gives the same descriptor.
  EXPECT_EQ(Trace::registerMessage("Test/Ring", 2, "Many", "f", "{} {} {} {}",
                                   "iiiii")
                .id,
            many.id);
  EXPECT_NE(Trace::registerMessage("Test/Ring", 3, "Many", "f", "{} {} {} {}",
                                   "iiiii")
                .id,
            many.id)
      << "another line is another message";
  EXPECT_NE(odd.id, 0u);
}

// The ring lives beside the trace file: without one nothing is written;
// with one, a file in its place that is not a ring is replaced.
TEST_F(Ring, IsWrittenOnlyWithATraceFileAndReplacesWhatIsNotARing) {
  configure("");
  sweep(1); // the call site registers its descriptor here, without a file
  mark(2);
  EXPECT_TRUE(
      std::filesystem::is_empty(std::filesystem::path(path_).parent_path()));
  TestSupport::writeFile(ring(), "not a ring file, just text left here");
  // The same call sites, once a file is configured, do reach the ring.
  configure(path_);
  sweep(3);
  EXPECT_EQ(texts(Trace::readRing(ring())),
            std::vector<std::string>{"Swept 3 entries"});
}

TEST_F(Ring, KeepsTheNewestEntriesWhenItWraps) {
  const auto total = static_cast<std::int64_t>(rf::kDefaultEntryCapacity) + 10;
  for (std::int64_t i = 1; i <= total; ++i) {
    sweep(i);
  }
  const auto ms = Trace::readRing(ring());
  ASSERT_EQ(ms.size(), rf::kDefaultEntryCapacity);
  EXPECT_EQ(ms.front().text, "Swept 11 entries");
  EXPECT_EQ(ms.back().text, "Swept " + std::to_string(total) + " entries");
}

TEST_F(Ring, OutlivesAKilledWriterAndIsSharedByProcesses) {
  sweep(1);
  const pid_t child = TestSupport::forkTied();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A process of its own that opens the ring afresh, as another agent
    // configured with the same trace file would.
    configure(dir_.file("elsewhere.trace"));
    configure(path_);
    mark(100);
    mark(101);
    ::kill(::getpid(), SIGKILL); // no exit handlers, no unmapping
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  sweep(2);
  const auto ms = Trace::readRing(ring());
  EXPECT_EQ(texts(ms), (std::vector<std::string>{
                           "Swept 1 entries", "Marked 100 entries",
                           "Marked 101 entries", "Swept 2 entries"}));
  ASSERT_EQ(ms.size(), 4u);
  EXPECT_EQ(ms[1].pid, static_cast<std::uint32_t>(child));
  EXPECT_EQ(ms[3].pid, static_cast<std::uint32_t>(::getpid()));

  // A new process start keeps what is there and reuses the descriptors.
  configure(dir_.file("other.trace"));
  configure(path_);
  mark(102);
  EXPECT_EQ(Trace::readRing(ring()).size(), 5u);
  EXPECT_EQ(TestSupport::peek<rf::RingHeader>(ring(), 0).descriptorCount, 2u)
      << "sweep and mark, once each";
}

TEST_F(RingReader, ReturnsWhatItCanFromTruncatedFiles) {
  for (std::int64_t i = 0; i < 10; ++i) {
    sweep(i);
  }
  configure(""); // the writer lets go of the file
  const std::string good = TraceTest::readFile(ring());
  const std::string copy = dir_.file("copy.ring");
  const std::uint64_t entryOffset =
      sizeof(rf::RingHeader) + std::uint64_t{rf::kDefaultDescriptorCapacity} *
                                   sizeof(rf::DescriptorSlot);
  ASSERT_GT(good.size(), entryOffset);
  // Every cut: nothing before the entries, then one entry more per 64 bytes.
  for (std::uint64_t cut :
       {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{63},
        std::uint64_t{64}, std::uint64_t{600}, entryOffset - 1, entryOffset,
        entryOffset + 63, entryOffset + 64, entryOffset + 64 * 5 + 17,
        entryOffset + 64 * 10, std::uint64_t{good.size() - 1}}) {
    std::filesystem::remove(copy);
    std::ofstream(copy, std::ios::binary) << good.substr(0, cut);
    const auto ms = Trace::readRing(copy);
    const std::size_t whole =
        cut < entryOffset ? 0
                          : std::min<std::size_t>(10, (cut - entryOffset) / 64);
    ASSERT_EQ(ms.size(), whole) << "cut at " << cut;
    for (std::size_t i = 0; i < ms.size(); ++i) {
      EXPECT_EQ(ms[i].text, "Swept " + std::to_string(i) + " entries");
    }
  }
  EXPECT_TRUE(Trace::readRing(dir_.file("missing.ring")).empty());
  EXPECT_TRUE(Trace::readRing(dir_.file("")).empty()) << "a directory";
}

TEST_F(RingReader, NeverTrustsWhatTheFileSays) {
  sweep(1);
  sweep(2);
  configure("");
  const std::string r = ring();
  const auto h = TestSupport::peek<rf::RingHeader>(r, 0);
  const auto slotText = h.descriptorOffset + offsetof(rf::DescriptorSlot, text);
  const auto entry1 = h.entryOffset + sizeof(rf::RingEntry);

  // An entry naming a descriptor that is not there is left out.
  const std::uint32_t far = 200;
  TestSupport::pokeBytes(r, entry1 + offsetof(rf::RingEntry, descriptor), &far,
                         sizeof far);
  EXPECT_EQ(texts(Trace::readRing(r)),
            std::vector<std::string>{"Swept 1 entries"});
  const std::uint32_t zero = 0;
  TestSupport::pokeBytes(r, entry1 + offsetof(rf::RingEntry, descriptor), &zero,
                         sizeof zero);

  // A format that would make fmt write two billion spaces, or take a width
  // from an argument, is shown raw.
  const auto formatAt = slotText + std::strlen("MicaMpls/MplsLemSwTable") + 1 +
                        std::strlen("MplsLemSwTable") + 1 +
                        std::strlen("sweep") + 1;
  for (const std::string format : {"{:2000000000}", "{:{}}"}) {
    TestSupport::pokeBytes(r, formatAt, format.c_str(), format.size() + 1);
    EXPECT_EQ(texts(Trace::readRing(r)),
              (std::vector<std::string>{format + " [1]", format + " [2]"}));
  }

  // Counts beyond anything plausible.
  rf::RingHeader bad = h;
  bad.descriptorCount = 0xffffffffu;
  bad.writeIndex = ~std::uint64_t{0};
  TestSupport::pokeBytes(r, 0, &bad, sizeof bad);
  EXPECT_LE(Trace::readRing(r).size(), 2u);
  bad = h;
  bad.entryCapacity = 3; // not a power of two
  TestSupport::pokeBytes(r, 0, &bad, sizeof bad);
  EXPECT_TRUE(Trace::readRing(r).empty());
  bad = h;
  bad.entryCapacity = 0x80000000u;
  TestSupport::pokeBytes(r, 0, &bad, sizeof bad);
  EXPECT_TRUE(Trace::readRing(r).empty());
  bad = h;
  bad.version = 2;
  TestSupport::pokeBytes(r, 0, &bad, sizeof bad);
  EXPECT_TRUE(Trace::readRing(r).empty());
}

TEST_F(RingReader, SurvivesRandomBytesAnywhere) {
  for (std::int64_t i = 0; i < 50; ++i) {
    (i % 2 ? sweep : mark)(i);
  }
  configure("");
  const std::string good = TraceTest::readFile(ring());
  const auto h = TestSupport::peek<rf::RingHeader>(ring(), 0);
  const std::string copy = dir_.file("fuzzed.ring");
  std::mt19937_64 rng(20261122);
  for (int round = 0; round < 300; ++round) {
    std::string bytes = good;
    // Mostly the header, the used descriptors and the used entries: where a
    // reader acts on what it finds.
    const std::uint64_t regions[][2] = {
        {0, sizeof h},
        {h.descriptorOffset,
         h.descriptorOffset + 2 * sizeof(rf::DescriptorSlot)},
        {h.entryOffset, h.entryOffset + 50 * sizeof(rf::RingEntry)}};
    const int flips = 1 + static_cast<int>(rng() % 8);
    for (int k = 0; k < flips; ++k) {
      const auto &reg = regions[rng() % 3];
      const std::uint64_t at = reg[0] + rng() % (reg[1] - reg[0]);
      bytes[at] = static_cast<char>(rng());
    }
    if (round % 10 == 0) {
      bytes.resize(rng() % bytes.size());
    }
    std::filesystem::remove(copy);
    std::ofstream(copy, std::ios::binary) << bytes;
    const auto ms = Trace::readRing(copy);
    EXPECT_LE(ms.size(), 50u);
  }
  // Nothing but noise.
  for (const std::size_t size :
       {std::size_t{7}, std::size_t{64}, std::size_t{4096}, good.size()}) {
    std::string noise(size, '\0');
    for (auto &c : noise) {
      c = static_cast<char>(rng());
    }
    std::filesystem::remove(copy);
    std::ofstream(copy, std::ios::binary) << noise;
    EXPECT_TRUE(Trace::readRing(copy).empty());
  }
}

} // namespace
