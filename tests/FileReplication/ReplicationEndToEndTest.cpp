#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "FileReplication/ReplicationSm.h"
#include "runtime/ActivityManager.h"

namespace FileReplication {
namespace {

std::string contents(std::string const& path) {
  std::stringstream s;
  s << std::ifstream(path).rdbuf();
  return s.str();
}

// A real file copied, updated and deleted by the real Replicate and rsync.
TEST(ReplicationSmIntegration, RealReplicateKeepsALocalCopyInStep) {
  std::string const oldPath = getenv("PATH");
  setenv("PATH", (std::string(REPLICATE_DIR) + ":" + oldPath).c_str(), 1);
  char dir[] = "/tmp/replication-e2e-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(dir));
  std::string const d = dir;
  std::string const source = d + "/it's a $(file); x";
  std::string const target = d + "/copy/of/it";
  std::ofstream(source) << "first";

  auto rc = RequesterConfig::RequesterConfigIs("r", RequesterConfig::periodic);
  rc->enabledIs(true);
  auto fs = FileStatus::FileStatusIs(Kel::Name(source));
  auto sm = ReplicationSm::ReplicationSmIs(Kel::String8(source), rc,
                                           FileConfig::FileConfigIs(Kel::Name(source), target, "-a"), fs);
  auto& loop = Kel::activityManager()->loop();
  auto settled = [&] { return sm->state() == ReplicationSm::standby || sm->state() == ReplicationSm::backoff; };

  ASSERT_TRUE(loop.runUntil(settled, 30));
  EXPECT_EQ(FileStatus::synchronized, fs->status());
  EXPECT_EQ("first", contents(target));

  std::ofstream(source) << "other";  // same size, same second
  sm->replicate();
  ASSERT_TRUE(loop.runUntil(settled, 30));
  EXPECT_EQ("other", contents(target));

  unlink(source.c_str());
  sm->replicate();
  ASSERT_TRUE(loop.runUntil(settled, 30));
  EXPECT_EQ(FileStatus::synchronized, fs->status());
  EXPECT_FALSE(std::filesystem::exists(target));

  sm = nullptr;
  setenv("PATH", oldPath.c_str(), 1);
  std::filesystem::remove_all(d);
}

}  // namespace
}  // namespace FileReplication
