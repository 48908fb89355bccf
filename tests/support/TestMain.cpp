#include <gtest/gtest.h>

#include "tests/support/LeakListener.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // gtest owns and deletes the listener.
  ::testing::UnitTest::GetInstance()->listeners().Append(new LeakListener);
  return RUN_ALL_TESTS();
}
