#include <gtest/gtest.h>

#include <string>

#include "platform/asic/GroupInterface.h"
#include "support/Files.h"
#include "support/Fork.h"
#include "support/FreshInstance.h"

namespace {

const Asic::SwTableId kIsem2(0x0A080401);
const Asic::SwTableId kLem(0x0A080402);

std::string hwAgent() { return TestSupport::freshInstanceName("hw"); }

// The agent reads the table versions a hardware writer in another process
// recorded, and each change a writer makes after the agent mounted.
TEST(TableVersions, AgentsReadWhatTheHardwareWriterRecorded) {
  const std::string hw = hwAgent();
  auto group = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
  EXPECT_FALSE(group->hwTableVersion(kIsem2)); // no collection yet

  // The agent finds nothing before the hardware writer has started.
  EXPECT_THROW(Asic::mountTableVersionSlate(
                   Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls"),
               Shm::NotFoundError);

  const pid_t child = TestSupport::forkChild([&] {
    auto w =
        Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls");
    for (Asic::LogVersion v = 1; v <= 1000; ++v) {
      w->tableVersionIs(kIsem2, v);
    }
  });
  ASSERT_EQ(TestSupport::waitExit(child), 0);
  auto reader = Asic::mountTableVersionSlate(
      Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls");
  group->tableVersionSlateIs(reader);
  EXPECT_EQ(group->hwTableVersion(kIsem2), 1000u);
  EXPECT_FALSE(group->hwTableVersion(kLem)); // first start of that type
  auto writer =
      Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls");
  writer->tableVersionIs(kIsem2, 1012);
  writer->tableVersionIs(kLem, 3);
  EXPECT_EQ(group->hwTableVersion(kIsem2), 1012u);
  EXPECT_EQ(group->hwTableVersion(kLem), 3u);
  Shm::entityManager(hw, 0, Shm::Access::read)->close();
  Shm::entityManager(hw, 0)->close();
}

TEST(TableVersions, ACorruptRecordReadsAsNotFoundUntilRewritten) {
  const std::string hw = hwAgent();
  auto writer = Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls");
  writer->tableVersionIs(kIsem2, 0x1122334455667788ull);
  auto reader = Asic::mountTableVersionSlate(
      Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls");
  auto group = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
  group->tableVersionSlateIs(reader);

  // Flip one byte of the record's version in the file.
  const std::uint64_t v = 0x1122334455667788ull;
  const auto at = TestSupport::readFile(reader->fileName())
                      .find(std::string(reinterpret_cast<const char *>(&v), 8));
  ASSERT_NE(at, std::string::npos);
  TestSupport::flipByte(reader->fileName(), at, 0x40);
  EXPECT_FALSE(group->hwTableVersion(kIsem2));
  EXPECT_EQ(reader->tableVersion().corruptionCount(), 1u);
  EXPECT_FALSE(group->hwTableVersion(kIsem2)); // dropped: still absent

  writer->tableVersionIs(kIsem2, 7); // a new record replaces it
  EXPECT_EQ(group->hwTableVersion(kIsem2), 7u);
  Shm::entityManager(hw, 0, Shm::Access::read)->close();
  Shm::entityManager(hw, 0)->close();
}

} // namespace
