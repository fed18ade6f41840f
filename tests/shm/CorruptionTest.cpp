// Damaged bytes: every kind is reported, counted and read as absent, by the
// writer's mount, by the writer's reads and by readers, and nothing crashes.
#include <functional>
#include <random>
#include <stdexcept>

#include "ShmTestTypes.h"
#include "platform/shm/Format.h"

using namespace ShmTest;
namespace format = Shm::format;

namespace {

format::FileHeader readHeader(const std::string &file) {
  return peek<format::FileHeader>(file, 0);
}

// The file offset of slot `i` of collection `c`.
std::uint64_t slotOffset(const format::FileHeader &h, int c, std::uint32_t i) {
  return h.collections[c].slotsOffset +
         std::uint64_t{i} * h.collections[c].slotSize;
}

// A slate whose "big" collection holds labels 0..n-1 in slots 0..n-1.
std::string makeSlate(const std::string &agent, std::uint32_t n = 8) {
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "s", slateInfo());
  for (std::uint32_t l = 0; l < n; ++l) {
    s->big().insert(bigRecord(l, l + 100));
    s->log().insert(logRecord(l + 1, l));
  }
  const std::string file = s->fileName();
  em->close();
  return file;
}

std::set<std::uint32_t> labels(Shm::Collection<BigTraits> &c) {
  std::set<std::uint32_t> out;
  c.forEach([&](const BigRecord &r) {
    EXPECT_TRUE(bigConsistent(r));
    out.insert(r.key.label);
  });
  return out;
}

TEST(ShmCorruption, WriterMountDropsBadSealsChecksumsAndRecordBytes) {
  const std::string agent = freshAgent();
  const std::string file = makeSlate(agent);
  const format::FileHeader h = readHeader(file);
  flipByte(file, slotOffset(h, 0, 1) + 7, 0x01);   // seal tag byte
  flipByte(file, slotOffset(h, 0, 2) + 0, 0x01);   // seal sequence
  flipByte(file, slotOffset(h, 0, 3) + 9, 0x10);   // checksum
  flipByte(file, slotOffset(h, 0, 4) + 500, 0x80); // record bytes
  flipByte(file, slotOffset(h, 0, 5) + 16, 0x01);  // the key itself
  CaptureReporter rep;
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "s", slateInfo());
  EXPECT_EQ(s->big().corruptionCount(), 5u);
  EXPECT_EQ(rep.corruptions.size(), 5u);
  for (const std::string &m : rep.corruptions) {
    EXPECT_NE(m.find(file), std::string::npos) << m;
    EXPECT_NE(m.find("collection big"), std::string::npos) << m;
    EXPECT_NE(m.find("slot "), std::string::npos) << m;
  }
  EXPECT_EQ(labels(s->big()), (std::set<std::uint32_t>{0, 6, 7}));
  EXPECT_EQ(s->big().count(), 3u);
  EXPECT_EQ(s->big().countByScan(), 3u);
  EXPECT_EQ(s->log().count(), 8u); // other collections untouched
  EXPECT_FALSE(s->big().control().wiped());
  // The dropped slots are free again.
  for (std::uint32_t l = 10; l < 15; ++l) {
    s->big().insert(bigRecord(l, 1));
  }
  EXPECT_LE(s->big().control().highWater(), 8u);
  em->close();
}

TEST(ShmCorruption, WriterReadsThrowAndTheCallerDropsTheRecord) {
  const std::string agent = freshAgent();
  makeSlate(agent);
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "s", slateInfo());
  auto &big = s->big();
  const format::FileHeader h = readHeader(s->fileName());
  // Damage under the running writer (through another descriptor: the same
  // page cache as its mapping).
  flipByte(s->fileName(), slotOffset(h, 0, 2) + 300, 0x04);
  const BigKey key{2, 2};
  BigRecord r;
  try {
    big.find(key, r);
    FAIL() << "no CorruptionError";
  } catch (const Shm::CorruptionError &e) {
    EXPECT_EQ(e.slot(), 2u);
    EXPECT_EQ(e.collection(), "big");
    EXPECT_THROW(big.findRef(key), Shm::CorruptionError);
    CaptureReporter rep;
    big.doCorruptionDetected(e.what());
    EXPECT_EQ(rep.corruptions, std::vector<std::string>{e.what()});
  }
  EXPECT_EQ(big.corruptionCount(), 1u);
  EXPECT_FALSE(big.find(key, r));
  EXPECT_EQ(big.count(), 7u);
  EXPECT_EQ(big.countByScan(), 7u);

  // forEach stops at a bad record; after handling, the walk completes.
  flipByte(s->fileName(), slotOffset(h, 0, 5) + 8, 0x01);
  CaptureReporter rep;
  std::size_t seen = 0;
  for (int attempt = 0; attempt < 3; ++attempt) {
    try {
      seen = 0;
      big.forEach([&](const BigRecord &) { ++seen; });
      break;
    } catch (const Shm::CorruptionError &e) {
      big.doCorruptionDetected(e.what());
    }
  }
  EXPECT_EQ(seen, 6u);
  EXPECT_EQ(big.corruptionCount(), 2u);
  // The key can be written again.
  big.insert(bigRecord(2, 7));
  ASSERT_TRUE(big.find(key, r));
  EXPECT_EQ(r.value, 7u);

  // A damaged key: the writer's scans in slot order read the record's own
  // key, not the one it is indexed under. The drop finds the record by its
  // slot all the same, once, and the scan retried after it completes.
  const std::vector<std::pair<std::uint32_t, std::function<void()>>> scans = {
      {6, [&] { big.forEachInPlace([](const BigRecord &) {}); }},
      {7, [&] { big.forEachUnordered([](const BigRecord &) {}); }},
      {1, [&] { big.countByScan(); }},
  };
  for (const auto &[label, scan] : scans) {
    const BigKey k{label, label % 4};
    const_cast<BigRecord *>(big.findRef(k))->key.label ^= 0x100;
    int thrown = 0;
    for (int pass = 0; pass < 3; ++pass) {
      try {
        scan();
        break;
      } catch (const Shm::CorruptionError &e) {
        ++thrown;
        big.doCorruptionDetected(e.what());
      }
    }
    EXPECT_EQ(thrown, 1) << label;
    EXPECT_FALSE(big.contains(k)) << label;
  }
  EXPECT_EQ(big.count(), 4u);
  EXPECT_EQ(big.countByScan(), 4u);
  EXPECT_EQ(big.corruptionCount(), 5u);
  // A closed handle writes nothing, but a dropped record stays dropped.
  em->close();
  const_cast<BigRecord *>(big.findRef(BigKey{4, 0}))->key.label ^= 0x100;
  EXPECT_THROW(big.forEachInPlace([](const BigRecord &) {}),
               Shm::CorruptionError);
  big.doCorruptionDetected("slot 4");
  std::size_t left = 0;
  big.forEachInPlace([&](const BigRecord &) { ++left; });
  EXPECT_EQ(left, 3u);
}

TEST(ShmCorruption, ReadersDropBadRecordsUntilTheSlotIsRewritten) {
  const std::string agent = freshAgent();
  makeSlate(agent);
  auto em = Shm::entityManager(agent, 0);
  auto s = mount<Slate>(em, "s", slateInfo());
  auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
  auto rs = mount<Slate>(ro, "s", readerInfo());
  auto &rbig = rs->big();
  const format::FileHeader h = readHeader(s->fileName());
  flipByte(s->fileName(), slotOffset(h, 0, 3) + 100, 0x02);
  BigRecord r;
  EXPECT_THROW(rbig.forEach([](const BigRecord &) {}), Shm::CorruptionError);
  try {
    rbig.find(BigKey{5, 1}, r);
    FAIL() << "no CorruptionError";
  } catch (const Shm::CorruptionError &e) {
    EXPECT_EQ(e.slot(), 3u);
    CaptureReporter rep;
    rbig.doCorruptionDetected(e.what());
    EXPECT_EQ(rep.corruptions.size(), 1u);
  }
  EXPECT_EQ(rbig.corruptionCount(), 1u);
  EXPECT_FALSE(rbig.find(BigKey{3, 3}, r));
  ASSERT_TRUE(rbig.find(BigKey{5, 1}, r));
  EXPECT_TRUE(bigConsistent(r));
  EXPECT_EQ(labels(rbig), (std::set<std::uint32_t>{0, 1, 2, 4, 5, 6, 7}));
  EXPECT_EQ(rbig.countByScan(), 7u);
  // The writer replaces the record: the reader sees the new one.
  s->big().insert(bigRecord(3, 42));
  ASSERT_TRUE(rbig.find(BigKey{3, 3}, r));
  EXPECT_EQ(r.value, 42u);
  ro->close();
  em->close();
}

// A file whose header cannot be used (a damaged byte, garbage, cut short,
// empty, grown): readers refuse it without crashing; the writer reports it and
// recreates the file wiped.
TEST(ShmCorruption, AnUnusableHeaderIsRefusedByReadersAndRecreatedWiped) {
  const std::string agent = freshAgent();
  const std::string file = makeSlate(agent);
  const std::string good = readFile(file);
  std::vector<std::string> contents = {"", "x", good.substr(0, 4096),
                                       good.substr(0, good.size() - 4096),
                                       good + std::string(4096, '\0')};
  for (const std::size_t offset : {0, 20, 50, 180, 4090}) {
    contents.push_back(good);
    contents.back()[offset] ^= 0x20;
  }
  std::mt19937_64 rng(11);
  for (int i = 0; i < 20; ++i) {
    std::string g(rng() % 20000, '\0');
    for (char &c : g) {
      c = static_cast<char>(rng());
    }
    contents.push_back(g);
  }
  for (const std::string &c : contents) {
    SCOPED_TRACE(testing::Message() << "contents " << &c - &contents[0]);
    writeFile(file, c);
    CaptureReporter rep;
    auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
    EXPECT_THROW(ro->mountGroup()->doMount("s", Slate::kTypeName, readerInfo()),
                 Shm::CorruptionError);
    ro->close();
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "s", slateInfo());
    EXPECT_TRUE(s->big().control().wiped());
    EXPECT_TRUE(s->log().control().wiped());
    EXPECT_EQ(s->big().count(), 0u);
    EXPECT_EQ(rep.corruptions.size(), 2u);
    em->close();
  }
}

TEST(ShmCorruption, AnUnreadableCatalogIsReportedAndMissingFilesCountAsWiped) {
  const std::string agent = freshAgent();
  makeSlate(agent);
  {
    std::ofstream out(instanceDir(agent) + "/.catalog", std::ios::app);
    out << "junk\n";
  }
  CaptureReporter rep;
  auto em = Shm::entityManager(agent, 0);
  EXPECT_EQ(rep.corruptions.size(), 1u);
  EXPECT_EQ(mount<Slate>(em, "s", slateInfo())->big().count(), 8u);
  auto t = mount<Table>(em, "never-before", tableInfo(4));
  EXPECT_TRUE(t->entries().control().wiped());
  em->close();
}

// A damaged high-water mark, or a file cut short under a reader, never sends
// a reader or the writer's mount past the file: nothing faults, the holes of
// a sparse file stay holes, and the writer's mount stores the right mark.
TEST(ShmCorruption, AHighWaterMarkBeyondTheFileIsNotFollowed) {
  const std::string agent = freshAgent();
  constexpr std::uint32_t kCap = 1u << 20; // a sparse file of 24 MiB
  std::string file;
  {
    auto em = Shm::entityManager(agent, 0);
    auto t = mount<Table>(em, "t", tableInfo(kCap));
    for (std::uint32_t k = 0; k < 10; ++k) {
      t->entries().insert(SmallRecord{k, k});
    }
    file = t->fileName();
    em->close();
  }
  const format::FileHeader h = readHeader(file);
  const std::uint64_t markAt = h.collections[0].controlOffset + 16;
  auto allocated = [&] {
    struct stat st {};
    EXPECT_EQ(::stat(file.c_str(), &st), 0);
    return st.st_blocks;
  };
  const auto blocks = allocated();
  for (const std::uint64_t mark : {~std::uint64_t{0}, std::uint64_t{kCap}}) {
    SCOPED_TRACE(mark);
    pokeBytes(file, markAt, &mark, 8);
    {
      auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
      EXPECT_EQ(mount<Table>(ro, "t", readerInfo())->entries().countByScan(),
                10u);
      ro->close();
    }
    CaptureReporter rep;
    for (int again = 0; again < 2; ++again) {
      auto em = Shm::entityManager(agent, 0);
      auto t = mount<Table>(em, "t", tableInfo(kCap));
      EXPECT_EQ(t->entries().count(), 10u);
      EXPECT_EQ(t->entries().control().highWater(), 10u);
      em->close();
    }
    EXPECT_EQ(rep.corruptions.size(), 1u); // by the first mount only
    // The writer's space reserve may take a page more than before; the
    // holes up to the damaged mark stay holes.
    EXPECT_LE(allocated(), blocks + 16);
  }
  // A reader whose file loses all but its first page of slots after the
  // mount, with the mark damaged again: it reads what is left and lives.
  const std::uint64_t huge = ~0ull;
  pokeBytes(file, markAt, &huge, 8);
  const pid_t reader = forkChild([&] {
    auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
    auto t = mount<Table>(ro, "t", readerInfo());
    if (::truncate(file.c_str(),
                   static_cast<off_t>(h.collections[0].slotsOffset + 4096)) !=
        0) {
      throw std::runtime_error("truncate failed");
    }
    std::size_t n = 0;
    t->entries().forEach([&](const SmallRecord &) { ++n; });
    t->entries().forEachUnordered([&](const SmallRecord &) { ++n; });
    SmallRecord r;
    if (n != 20 || t->entries().countByScan() != 10 ||
        !t->entries().find(9, r)) {
      throw std::runtime_error("records lost");
    }
  });
  EXPECT_EQ(waitExit(reader), 0);
}

// Sequence numbers never wrap: a commit word damaged to near the end of the
// sequence space is rejected at mount, and a seal holding the largest number
// makes inserts fail loudly instead of storing seals that the next mount
// would drop.
TEST(ShmCorruption, SequenceNumbersNeverWrap) {
  const std::string agent = freshAgent();
  const std::string file = makeSlate(agent, 4);
  const format::FileHeader h = readHeader(file);
  const std::uint64_t logControl = h.collections[1].controlOffset;
  const std::uint64_t nearEnd = (format::kSeqMask - 1) << 1;
  pokeBytes(file, logControl + 24, &nearEnd, 8);
  auto remount = [&](auto &&body) {
    auto em = Shm::entityManager(agent, 0);
    body(mount<Slate>(em, "s", slateInfo())->log());
    em->close();
  };
  CaptureReporter rep;
  remount([](Shm::Collection<LogTraits> &log) {
    EXPECT_EQ(log.corruptionCount(), 1u);
    for (std::uint64_t v = 1; v <= 8; ++v) { // replaces 1..4, adds 5..8
      log.insert(logRecord(v, v + 50));
    }
  });
  remount([](Shm::Collection<LogTraits> &log) {
    EXPECT_EQ(log.corruptionCount(), 0u);
    EXPECT_EQ(log.count(), 8u);
    LogRecord r;
    ASSERT_TRUE(log.find(1, r));
    EXPECT_EQ(r.value, 51u);
  });
  EXPECT_EQ(rep.corruptions.size(), 1u);

  // A record sealed with the largest number and a valid checksum, in the
  // next fresh slot, as a writer would have left it.
  std::uint64_t hw = peek<std::uint64_t>(file, logControl + 16);
  const LogRecord last = logRecord(100, 7);
  const std::uint64_t seal = format::sealOf(format::kSeqMask);
  const std::uint64_t ck = format::recordChecksum(&last, sizeof last, seal);
  const std::uint64_t at = slotOffset(h, 1, static_cast<std::uint32_t>(hw));
  const std::uint64_t commit = format::kSeqMask << 1;
  pokeBytes(file, at + 16, &last, sizeof last);
  pokeBytes(file, at + 8, &ck, 8);
  pokeBytes(file, at, &seal, 8);
  ++hw;
  pokeBytes(file, logControl + 16, &hw, 8);
  pokeBytes(file, logControl + 24, &commit, 8);
  remount([](Shm::Collection<LogTraits> &log) {
    EXPECT_EQ(log.count(), 9u);
    EXPECT_THROW(log.insert(logRecord(200, 1)), Shm::Error);
    EXPECT_THROW(log.insert(logRecord(1, 1)), Shm::Error); // a replace
    EXPECT_EQ(log.count(), 9u);
    // Erases still work; with that record gone, the next mount continues
    // after the largest seal left.
    EXPECT_TRUE(log.erase(100));
  });
  remount([](Shm::Collection<LogTraits> &log) {
    log.insert(logRecord(200, 1));
    log.insert(logRecord(1, 2));
  });
  remount([](Shm::Collection<LogTraits> &log) {
    EXPECT_EQ(log.count(), 9u);
    LogRecord r;
    ASSERT_TRUE(log.find(1, r));
    EXPECT_EQ(r.value, 2u);
    EXPECT_TRUE(log.find(200, r));
  });
  EXPECT_EQ(rep.corruptions.size(), 3u); // each implausible commit word
}

// Random damage anywhere in the used part of a file, many times over: the
// reader and the writer report it and carry on; what they return is whole.
TEST(ShmCorruption, RandomFlipsNeverCrashAndNeverYieldBadRecords) {
  const std::string agent = freshAgent();
  const std::string file = makeSlate(agent, 40);
  const std::string good = readFile(file);
  const format::FileHeader h = readHeader(file);
  const std::uint64_t usedEnd = slotOffset(h, 1, 48);
  std::mt19937_64 rng(testing::UnitTest::GetInstance()->random_seed());
  CaptureReporter rep;
  for (int round = 0; round < 150; ++round) {
    std::string bytes = good;
    const int flips = 1 + static_cast<int>(rng() % 6);
    for (int f = 0; f < flips; ++f) {
      // Mostly the slots; sometimes the header and control words.
      const std::uint64_t at =
          rng() % 4 == 0 ? rng() % (4096 + 256)
                         : h.collections[0].slotsOffset +
                               rng() % (usedEnd - h.collections[0].slotsOffset);
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << (rng() % 8)));
    }
    writeFile(file, bytes);
    auto ro = Shm::entityManager(agent, 0, Shm::Access::read);
    try {
      auto rs = mount<Slate>(ro, "s", readerInfo());
      for (int pass = 0; pass < 100; ++pass) {
        try {
          rs->big().forEach(
              [](const BigRecord &r) { ASSERT_TRUE(bigConsistent(r)); });
          rs->log().forEach(
              [](const LogRecord &r) { ASSERT_TRUE(logConsistent(r)); });
          break;
        } catch (const Shm::CorruptionError &e) {
          if (e.collection() == "big") {
            rs->big().doCorruptionDetected(e.what());
          } else {
            rs->log().doCorruptionDetected(e.what());
          }
        }
      }
    } catch (const Shm::CorruptionError &) {
      // an unusable header
    }
    ro->close();
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "s", slateInfo());
    EXPECT_EQ(s->big().count(), s->big().countByScan());
    s->big().forEach([](const BigRecord &r) { ASSERT_TRUE(bigConsistent(r)); });
    s->log().forEach([](const LogRecord &r) { ASSERT_TRUE(logConsistent(r)); });
    em->close();
  }
  EXPECT_FALSE(rep.corruptions.empty());
}

} // namespace

namespace {

// A replace interrupted between publishing the new copy and freeing the old
// one leaves two sealed copies of a key; the mount keeps the newer.
TEST(ShmRecovery, TwoCopiesOfAKeyResolveToTheNewer) {
  const std::string agent = freshAgent();
  for (const bool newerInLowerSlot : {false, true}) {
    SCOPED_TRACE(newerInLowerSlot);
    const std::string file = makeSlate(agent, 4); // labels 0..3 in slots 0..3
    const format::FileHeader h = readHeader(file);
    // A copy of label 2 with another value in slot 4, sealed with a sequence
    // number above (or below) the one in slot 2.
    const std::uint64_t seal =
        newerInLowerSlot ? format::sealOf(1) : format::sealOf(1000);
    if (newerInLowerSlot) {
      const std::uint64_t high = format::sealOf(1000);
      BigRecord old = bigRecord(2, 102);
      const std::uint64_t ck = format::recordChecksum(&old, sizeof old, high);
      pokeBytes(file, slotOffset(h, 0, 2), &high, 8);
      pokeBytes(file, slotOffset(h, 0, 2) + 8, &ck, 8);
    }
    const BigRecord copy = bigRecord(2, 555);
    const std::uint64_t ck = format::recordChecksum(&copy, sizeof copy, seal);
    pokeBytes(file, slotOffset(h, 0, 4) + 16, &copy, sizeof copy);
    pokeBytes(file, slotOffset(h, 0, 4) + 8, &ck, 8);
    pokeBytes(file, slotOffset(h, 0, 4), &seal, 8);
    const std::uint64_t hw = 5;
    pokeBytes(file, h.collections[0].controlOffset + 16, &hw, 8);
    // The replace stored its number in the commit word before its seal.
    const std::uint64_t commit = 1000 << 1;
    pokeBytes(file, h.collections[0].controlOffset + 24, &commit, 8);

    CaptureReporter rep;
    auto em = Shm::entityManager(agent, 0);
    auto s = mount<Slate>(em, "s", slateInfo());
    EXPECT_TRUE(rep.corruptions.empty());
    EXPECT_EQ(s->big().recoveredAtMount(), 1u);
    EXPECT_EQ(s->big().count(), 4u);
    EXPECT_EQ(s->big().countByScan(), 4u);
    BigRecord r;
    ASSERT_TRUE(s->big().find(BigKey{2, 2}, r));
    EXPECT_EQ(r.value, newerInLowerSlot ? 102u : 555u);
    // New changes get sequence numbers above both.
    s->big().insert(bigRecord(2, 777));
    em->close();
    auto em2 = Shm::entityManager(agent, 0);
    auto s2 = mount<Slate>(em2, "s", slateInfo());
    ASSERT_TRUE(s2->big().find(BigKey{2, 2}, r));
    EXPECT_EQ(r.value, 777u);
    em2->entityDel("s");
    em2->close();
  }
}

} // namespace
