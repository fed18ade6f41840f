#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

#include "MicaMpls/MplsIsem2EntryLog.h"
#include "MicaMpls/MplsLemEntryLog.h"
#include "platform/asic/Constants.h"
#include "platform/asic/OrderedSwTable.h"
#include "platform/framework/HashMap.h"

namespace {

using namespace MicaMpls;

TEST(Records, AnEntryIsItsResourcePartFollowedByItsLogEntry) {
  EXPECT_EQ(sizeof(MplsIsem2EntryKey), 8u);
  EXPECT_EQ(sizeof(MplsIsem2ResourceKeys), 800u);
  EXPECT_EQ(sizeof(MplsIsem2LogEntry), 16u);
  EXPECT_EQ(sizeof(MplsIsem2Entry), 816u);
  EXPECT_EQ(offsetof(MplsIsem2Entry, inLifKey), 0u);
  EXPECT_EQ(offsetof(MplsIsem2Entry, inLifClientData), 32u);
  EXPECT_EQ(offsetof(MplsIsem2Entry, key), 800u);
  EXPECT_EQ(offsetof(MplsIsem2Entry, inLif0Index), 808u);
  EXPECT_EQ(offsetof(MplsIsem2Entry, inLif23Index), 812u);

  EXPECT_EQ(sizeof(MplsLemResourceKeys), 4u);
  EXPECT_EQ(sizeof(MplsLemLogEntry), 24u);
  EXPECT_EQ(sizeof(MplsLemEntry), 28u);
  EXPECT_EQ(offsetof(MplsLemEntry, key), 4u);

  // Persistent records: an 832-byte configuration record and a 32-byte
  // change-log record for ISEM2.
  EXPECT_EQ(sizeof(MplsIsem2ConfigSlateEntry), 832u);
  EXPECT_EQ(sizeof(MplsIsem2LogSlateEntry), 32u);
  EXPECT_EQ(sizeof(MplsLemConfigSlateEntry), 48u);
  EXPECT_EQ(sizeof(MplsLemLogSlateEntry), 40u);
  EXPECT_EQ(offsetof(MplsIsem2ConfigSlateEntry, logEntry), 800u);
  EXPECT_EQ(offsetof(MplsIsem2ConfigSlateEntry, logVersion), 816u);
  EXPECT_EQ(offsetof(MplsIsem2ConfigSlateEntry, isDeleted), 824u);
  EXPECT_EQ(offsetof(MplsLemConfigSlateEntry, logVersion), 32u);
  EXPECT_EQ(offsetof(MplsIsem2LogSlateEntry, unitId), 24u);
  EXPECT_EQ(offsetof(MplsIsem2LogSlateEntry, deleteBits), 26u);

  // The parts taken apart are those bytes, and join back into the entry.
  MplsIsem2Entry e;
  e.inLifKey.label = 77;
  e.inLifClientData.opaque[751] = 9;
  e.key = MplsIsem2EntryKey(1000, 3);
  e.inLif0Index = 11;
  e.inLif23Index = 12;
  EXPECT_EQ(MplsIsem2Entry::fromParts(e.resourceKeys(), e.logEntry()), e);
  const auto rk = e.resourceKeys();
  const auto le = e.logEntry();
  EXPECT_EQ(std::memcmp(&rk, &e, sizeof rk), 0);
  EXPECT_EQ(std::memcmp(&le, reinterpret_cast<const char *>(&e) + sizeof rk,
                        sizeof le),
            0);

  MplsLemEntry l;
  l.l2AdjId = 5;
  l.key = MplsLemEntryKey(2000);
  l.fecId = 6;
  l.errorCode = 7;
  EXPECT_EQ(MplsLemEntry::fromParts(l.resourceKeys(), l.logEntry()), l);
  EXPECT_EQ(l.resourceKeys().l2AdjId, 5u);
}

template <typename E> void expectEveryByteCounts() {
  EXPECT_FALSE(static_cast<bool>(E{}));
  // Changing any one byte of a default entry (any field, the key's default
  // label included) makes it test true.
  for (std::size_t i = 0; i < sizeof(E); ++i) {
    E e{};
    auto *bytes = reinterpret_cast<unsigned char *>(&e);
    bytes[i] ^= 0x01;
    EXPECT_TRUE(static_cast<bool>(e)) << "byte " << i;
  }
}

TEST(Records, ADefaultEntryTestsFalseAndAnyChangeMakesItTrue) {
  const MplsIsem2EntryKey k;
  EXPECT_EQ(k.label, 0x100000u);
  EXPECT_EQ(k.qualifier, 0u);
  EXPECT_EQ(MplsIsem2Entry{}.key, k);
  EXPECT_EQ(MplsLemEntry{}.key.label, 0x100000u);
  expectEveryByteCounts<MplsIsem2Entry>();
  expectEveryByteCounts<MplsLemEntry>();
}

TEST(Records, KeysDifferingInTheirSecondFieldAreDistinctEverywhere) {
  const MplsIsem2EntryKey a(100, 0), b(100, 1);
  EXPECT_FALSE(a == b);
  EXPECT_NE(a.hash(1), b.hash(1));
  Fwk::HashMap<MplsIsem2EntryKey, int> m(0x77);
  m.insert(a, 1);
  m.insert(b, 2);
  EXPECT_EQ(m.size(), 2u);
  // Hashing depends on the seed, and equal keys hash alike under one seed.
  EXPECT_EQ(a.hash(5), MplsIsem2EntryKey(100, 0).hash(5));
  std::set<std::uint32_t> hashes;
  for (std::uint32_t seed = 0; seed < 64; ++seed) {
    hashes.insert(a.hash(seed));
  }
  EXPECT_GT(hashes.size(), 60u);
}

TEST(Records, TextForms) {
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(1, 2, 0x1f)), "01:02:001f");
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(MplsIsem2Constants::swTableTypeId)),
            "0a:08:0401");
  EXPECT_EQ(fmt::format("{}", Asic::SwTableId(MplsLemConstants::swTableTypeId)),
            "0a:08:0402");
  EXPECT_EQ(fmt::format("{}", MplsIsem2EntryKey(1000, 2)),
            "MplsIsem2EntryKey(label=1000, qualifier=2)");
  EXPECT_EQ(fmt::format("{}", MplsLemEntryKey()),
            "MplsLemEntryKey(label=1048576, qualifier=0)");
  MplsIsem2LogEntry le{MplsIsem2EntryKey(5), 6, 7};
  EXPECT_EQ(fmt::format("{}", le),
            "MplsIsem2LogEntry(key=MplsIsem2EntryKey(label=5, qualifier=0), "
            "inLif0Index=6, inLif23Index=7)");
  EXPECT_EQ(fmt::format("{}", Asic::EntryVersion(3, 0)),
            "EntryVersion(seq=3, minor=0)");
  EXPECT_EQ(fmt::format("{}", Asic::EntryVersion()), "EntryVersion(invalid)");
  EXPECT_EQ(fmt::format("{}", Asic::MajorVersion()), "invalid");
  EXPECT_EQ(fmt::format("{}", Asic::MajorVersion(2)), "2");
  EXPECT_EQ(fmt::format("{}", Asic::UnitId(3)), "3");
  EXPECT_EQ(fmt::format("{}", Asic::LogVersion(1234)), "1234");
  EXPECT_EQ(fmt::format("{}", true), "true");
  EXPECT_EQ(fmt::format("{}", Asic::EntryState::finished), "4");
  // A MplsIsem2Entry prints every attribute by name.
  const auto text = fmt::format("{}", MplsIsem2Entry{});
  for (const char *attr : {"inLifKey=", "inLifClientData=", "key=",
                           "inLif0Index=", "inLif23Index="}) {
    EXPECT_NE(text.find(attr), std::string::npos) << attr;
  }
}

TEST(Records, TableVersionsAndPaths) {
  EXPECT_EQ(MplsIsem2Constants::tableEntryLogSlatePath(),
            "ordered/MicaMpls/MplsIsem2/entryLog");
  EXPECT_EQ(MplsLemConstants::configSlatePath(7),
            "ordered/MicaMpls/MplsLem/config/7");
  EXPECT_EQ(Asic::Constants::getUnitIdFromConfigPath(
                MplsIsem2Constants::configSlatePath(65535)),
            Asic::UnitId(65535));
  EXPECT_FALSE(Asic::Constants::getUnitIdFromConfigPath("a/config/65536"));
  EXPECT_FALSE(Asic::Constants::getUnitIdFromConfigPath("a/config/x1"));
  EXPECT_THROW(Asic::Constants::canonicalizeGroupName("a/b"),
               std::invalid_argument);
}

} // namespace
