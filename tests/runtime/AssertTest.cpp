#include "runtime/Assert.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "runtime/Morlix.h"
#include "tests/support/TestFiles.h"

namespace {

bool requesterConfigSm(int name) { return name == 0; }

TEST(AssertIntegration, FailurePrintsTheExpressionAndPlaceRecordsItAndAborts) {
  int evaluations = 0;
  KEL_ASSERT(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);

  int const line = __LINE__ + 1;
  EXPECT_DEATH(KEL_ASSERT(0 && "invalid mode"),
               "Assertion failed: 0 && \"invalid mode\" \\(AssertTest\\.cpp:" + std::to_string(line) + "\\)\n");
  int name = 0;
  EXPECT_DEATH(KEL_ASSERT_TEXT(!requesterConfigSm(name), "!requesterConfigSm( name )"),
               "Assertion failed: !requesterConfigSm\\( name \\) \\(AssertTest\\.cpp:[0-9]+\\)");

  TempDir dir;
  std::string const ring = dir / "ring";
  EXPECT_EXIT(
      {
        Morlix::open(ring, 8192);
        Morlix::write(1, "Before", 6, "the last words");
        KEL_ASSERT(1 + 1 == 3);
      },
      testing::KilledBySignal(SIGABRT), "Assertion failed: 1 \\+ 1 == 3");
  Morlix::Snapshot snapshot = Morlix::read(ring);
  ASSERT_EQ(snapshot.records.size(), 2u);
  EXPECT_EQ(snapshot.records[0].message, "the last words");
  EXPECT_EQ(snapshot.records[1].facility, "Assert");
  EXPECT_EQ(snapshot.records[1].level, 0);
  EXPECT_EQ(snapshot.records[1].message.rfind("Assertion failed: 1 + 1 == 3 (AssertTest.cpp:", 0), 0u);
}

}  // namespace
