#include "tools/Replicate/DestinationBatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

using Replicate::DestinationBatch;
using testing::UnorderedElementsAre;
using Files = std::vector<size_t>;

namespace {

int exitStatus(int code) { return code << 8; }

// Plays rsync, whose wait status for a run over a list is rsync(list).
// Returns the lists run, in order.
std::vector<Files> drive(DestinationBatch& batch, const std::function<int(const Files&)>& rsync) {
  const std::vector<std::string> names(8, "name");
  std::vector<Files> runs;
  while (!batch.done() && runs.size() < 100) {
    runs.push_back(batch.nextList());
    batch.finished(rsync(runs.back()), names);
  }
  return runs;
}

bool holds(const Files& list, size_t file) { return std::find(list.begin(), list.end(), file) != list.end(); }

}  // namespace

TEST(DestinationBatchTest, SplitsPartialTransfersUntilTheFailingFilesAreFound) {
  DestinationBatch partial("host a", {"rsync"}, {0, 1, 2, 3, 4, 5, 6, 7});
  const std::vector<Files> runs =
      drive(partial, [](const Files& list) { return exitStatus(holds(list, 2) || holds(list, 5) ? 23 : 0); });
  EXPECT_THAT(partial.failed(), UnorderedElementsAre(2, 5));
  // A file runs again only in a smaller list, so never once it was copied.
  for (size_t file = 0; file < 8; ++file) {
    size_t previous = 9;
    for (const Files& list : runs) {
      if (!holds(list, file)) continue;
      EXPECT_LT(list.size(), previous) << file;
      previous = list.size();
    }
  }

  // A host that dies while the halves run fails what is left, not what
  // was copied before, and is not tried again.
  DestinationBatch dying("host b", {"rsync"}, {0, 1, 2, 3, 4, 5});
  const std::vector<Files> dyingRuns = drive(dying, [](const Files& list) {
    if (list.size() == 6) return exitStatus(24);
    return list == Files{0, 1, 2} ? exitStatus(0) : exitStatus(255);
  });
  EXPECT_THAT(dying.failed(), UnorderedElementsAre(3, 4, 5));
  EXPECT_EQ(dyingRuns.size(), 3u);

  // A file that fails alone while it keeps changing runs again, a few times;
  // one that fails while it stays put does not.
  std::vector<int> asked(8, 0);
  DestinationBatch changing("", {"rsync"}, {0, 1}, [&](size_t file) { return ++asked[file], file == 1; });
  const std::vector<Files> changingRuns = drive(changing, [](const Files&) { return exitStatus(24); });
  EXPECT_THAT(changing.failed(), UnorderedElementsAre(0, 1));
  EXPECT_EQ(std::count(changingRuns.begin(), changingRuns.end(), Files{1}), 3);
  EXPECT_EQ(std::count(changingRuns.begin(), changingRuns.end(), Files{0}), 1);
}
