#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/asic/GroupInterface.h"
#include "support/Fork.h"
#include "support/FreshInstance.h"

namespace {

const Asic::SwTableId kIsem2(0x0A080401);
const Asic::SwTableId kLem(0x0A080402);

std::string hwAgent() { return TestSupport::freshInstanceName("hw"); }

TEST(TableVersions, AgentsReadWhatTheHardwareWriterRecorded) {
  const std::string hw = hwAgent();
  auto group = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
  EXPECT_FALSE(group->hwTableVersion(kIsem2)); // no collection yet

  // The agent finds nothing before the hardware writer has started.
  EXPECT_THROW(Asic::mountTableVersionSlate(
                   Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls"),
               Shm::NotFoundError);

  auto writer = Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls");
  writer->tableVersionIs(kIsem2, 10);
  auto reader = Asic::mountTableVersionSlate(
      Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls");
  group->tableVersionSlateIs(reader);
  EXPECT_EQ(group->hwTableVersion(kIsem2), 10u);
  EXPECT_FALSE(group->hwTableVersion(kLem)); // first start of that type
  writer->tableVersionIs(kIsem2, 12);
  writer->tableVersionIs(kLem, 3);
  EXPECT_EQ(group->hwTableVersion(kIsem2), 12u);
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
  {
    std::fstream f(reader->fileName(),
                   std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), {});
    const std::uint64_t v = 0x1122334455667788ull;
    const auto at = bytes.find(std::string(reinterpret_cast<const char *>(&v), 8));
    ASSERT_NE(at, std::string::npos);
    f.seekp(static_cast<std::streamoff>(at));
    f.put(static_cast<char>(bytes[at] ^ 0x40));
  }
  EXPECT_FALSE(group->hwTableVersion(kIsem2));
  EXPECT_EQ(reader->tableVersion().corruptionCount(), 1u);
  EXPECT_FALSE(group->hwTableVersion(kIsem2)); // dropped: still absent

  writer->tableVersionIs(kIsem2, 7); // a new record replaces it
  EXPECT_EQ(group->hwTableVersion(kIsem2), 7u);
  Shm::entityManager(hw, 0, Shm::Access::read)->close();
  Shm::entityManager(hw, 0)->close();
}

TEST(TableVersions, AHardwareWriterInAnotherProcess) {
  const std::string hw = hwAgent();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t child = TestSupport::forkTied();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(ready[0]);
    auto w = Asic::mountTableVersionSlate(Shm::entityManager(hw, 0), "MicaMpls");
    for (Asic::LogVersion v = 1; v <= 1000; ++v) {
      w->tableVersionIs(kIsem2, v);
    }
    w->tableVersionIs(kLem, 99);
    const char c = 1;
    (void)!::write(ready[1], &c, 1);
    ::_exit(0);
  }
  ::close(ready[1]);
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  auto group = Fwk::make<Asic::GroupInterface>(0x0a08, "MicaMpls");
  group->tableVersionSlateIs(Asic::mountTableVersionSlate(
      Shm::entityManager(hw, 0, Shm::Access::read), "MicaMpls"));
  EXPECT_EQ(group->hwTableVersion(kIsem2), 1000u);
  EXPECT_EQ(group->hwTableVersion(kLem), 99u);
  Shm::entityManager(hw, 0, Shm::Access::read)->close();
}

} // namespace
