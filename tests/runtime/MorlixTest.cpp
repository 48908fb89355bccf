#include "runtime/Morlix.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/TestFiles.h"

namespace {

using testing::HasSubstr;

constexpr std::size_t headerSize = 64;
constexpr std::size_t recordHeaderSize = 32;

TEST(MorlixTest, FormatLineWritesUtcTimeFacilityLevelAndMessage) {
  using namespace std::chrono;
  auto time = sys_days{year(2026) / 11 / 21} + hours(23) + minutes(17) + seconds(2) + nanoseconds(123456789);
  std::int64_t timeNs = duration_cast<nanoseconds>(time.time_since_epoch()).count();
  char line[128];
  std::size_t size = Morlix::formatLine(line, sizeof line, timeNs, "FileReplicationSm", 6, "Requesting replication");
  EXPECT_EQ(std::string(line, size), "2026-11-21T23:17:02.123456Z FileReplicationSm 6 Requesting replication\n");

  // Before the epoch the microseconds still count forward within the second.
  size = Morlix::formatLine(line, sizeof line, -1000, "F", 0, "");
  EXPECT_EQ(std::string(line, size), "1969-12-31T23:59:59.999999Z F 0 \n");

  // A line that does not fit is cut and still ends the line.
  size = Morlix::formatLine(line, 30, timeNs, "Facility", 1, "a message longer than the room");
  EXPECT_EQ(std::string(line, size), "2026-11-21T23:17:02.123456Z F\n");
}

class MorlixIntegration : public testing::Test {
 protected:
  void TearDown() override { Morlix::close(); }

  void overwrite(std::size_t offset, std::string const& bytes) {
    int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)), static_cast<ssize_t>(bytes.size()));
    close(fd);
  }

  std::vector<std::string> messages() {
    std::vector<std::string> texts;
    for (auto const& record : Morlix::read(path_).records) texts.push_back(record.message);
    return texts;
  }

  std::string readError(std::string const& path) {
    try {
      Morlix::read(path);
    } catch (Morlix::Error const& error) {
      return error.what();
    }
    return "no error";
  }

  TempDir dir_;
  std::string const path_ = dir_ / "ring";
};

// Parses the number a record's message starts with.
long indexOf(Morlix::Record const& record) { return std::strtol(record.message.c_str(), nullptr, 10); }

TEST_F(MorlixIntegration, WrapsAroundKeepingTheNewestRecordsOldestFirst) {
  Morlix::open(path_, Morlix::minSizeBytes);
  ASSERT_TRUE(Morlix::isOpen());
  for (int i = 0; i < 1000; ++i) {
    // Lengths vary so that records straddle the end of the ring at many offsets.
    Morlix::write(i, "Wrap", i % 10, std::to_string(i) + std::string(static_cast<std::size_t>(i % 53), '.'));
  }
  for (bool live : {true, false}) {
    if (!live) Morlix::close();
    Morlix::Snapshot snapshot = Morlix::read(path_);
    EXPECT_EQ(snapshot.damagedRecords, 0u);
    ASSERT_FALSE(snapshot.records.empty());
    EXPECT_EQ(indexOf(snapshot.records.back()), 999);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < snapshot.records.size(); ++i) {
      Morlix::Record const& record = snapshot.records[i];
      long index = indexOf(record);
      EXPECT_EQ(index, indexOf(snapshot.records.back()) - static_cast<long>(snapshot.records.size() - 1 - i));
      EXPECT_EQ(record.timeNs, index);
      EXPECT_EQ(record.level, index % 10);
      EXPECT_EQ(record.facility, "Wrap");
      EXPECT_EQ(record.message.size(), std::to_string(index).size() + static_cast<std::size_t>(index % 53));
      bytes += recordHeaderSize + record.facility.size() + record.message.size();
    }
    // Only the room for one more record may be left unused.
    EXPECT_GT(bytes, Morlix::minSizeBytes - headerSize - (recordHeaderSize + 4 + 3 + 52));
  }
}

TEST_F(MorlixIntegration, OpenContinuesARingOfTheSameSizeAndReplacesAnythingElse) {
  Morlix::open(path_, 8192);
  Morlix::write(1, "F", 1, "one");
  Morlix::close();
  EXPECT_FALSE(Morlix::isOpen());
  Morlix::open(path_, 8192);
  Morlix::write(2, "F", 1, "two");
  EXPECT_EQ(messages(), (std::vector<std::string>{"one", "two"}));

  Morlix::open(path_, 16384);
  Morlix::write(3, "F", 1, "three");
  EXPECT_EQ(messages(), (std::vector<std::string>{"three"}));
  EXPECT_EQ(std::filesystem::file_size(path_), 16384u);

  Morlix::close();
  std::ofstream(path_) << "not a ring\n";
  Morlix::open(path_, 8192);
  Morlix::write(4, "F", 1, "four");
  EXPECT_EQ(messages(), (std::vector<std::string>{"four"}));

  // A message too long for the ring is cut to a quarter of it.
  Morlix::write(5, "F", 1, std::string(8192, 'x'));
  EXPECT_EQ(Morlix::read(path_).records.back().message.size(), (8192 - headerSize) / 4 - recordHeaderSize - 1);

  EXPECT_THAT([&] { Morlix::open(path_, 100); },
              testing::ThrowsMessage<Morlix::Error>(HasSubstr("ring size 100 is outside 4096")));
  EXPECT_THAT([&] { Morlix::open(dir_ / "missing/ring", 8192); },
              testing::ThrowsMessage<Morlix::Error>(HasSubstr(dir_ / "missing/ring: No such file or directory")));
}

// The records of one writer's run, numbered from 0 up: consecutive and whole.
void expectConsecutive(Morlix::Snapshot const& snapshot, std::string const& run) {
  EXPECT_EQ(snapshot.damagedRecords, 0u);
  for (std::size_t i = 0; i < snapshot.records.size(); ++i) {
    ASSERT_THAT(snapshot.records[i].message, testing::EndsWith(run));
    if (i > 0) {
      ASSERT_EQ(indexOf(snapshot.records[i]), indexOf(snapshot.records[i - 1]) + 1);
    }
  }
}

TEST_F(MorlixIntegration, ReadsBackWhileTheWriterRunsAndAfterItWasKilled) {
  constexpr long recordsBeforeKill = 2000;
  // Killing the writer at whatever instruction it is on leaves a record half
  // written now and then; many rounds make that likely.
  for (int round = 0; round < 40; ++round) {
    std::string run = " in round " + std::to_string(round);
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      Morlix::open(path_, 16384);
      for (long i = 0;; ++i) {
        Morlix::write(i, "Killed", 3, std::to_string(i) + run);
        if (i == recordsBeforeKill && ::write(ready[1], "r", 1) != 1) _exit(1);
      }
    }
    close(ready[1]);
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    close(ready[0]);
    // A writer this fast may lap the ring while it is copied, which leaves
    // nothing whole to show; what is shown must be right.
    expectConsecutive(Morlix::read(path_), run);
    kill(pid, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    Morlix::Snapshot snapshot = Morlix::read(path_);
    ASSERT_FALSE(snapshot.records.empty());
    EXPECT_GE(indexOf(snapshot.records.back()), recordsBeforeKill);
    expectConsecutive(snapshot, run);
  }

  // The dead writer's lock went with it: a new writer continues the ring.
  long last = indexOf(Morlix::read(path_).records.back());
  Morlix::open(path_, 16384);
  Morlix::write(0, "Restarted", 0, "after the crash");
  Morlix::Snapshot snapshot = Morlix::read(path_);
  ASSERT_GE(snapshot.records.size(), 2u);
  EXPECT_EQ(snapshot.records.back().message, "after the crash");
  EXPECT_EQ(indexOf(snapshot.records[snapshot.records.size() - 2]), last);
}

TEST_F(MorlixIntegration, SkipsDamagedRecords) {
  Morlix::open(path_, 8192);
  Morlix::write(1, "F", 1, "aaaa");
  Morlix::write(2, "F", 1, "bbbb");
  Morlix::write(3, "F", 1, "cccc");
  Morlix::close();
  std::size_t const recordSize = recordHeaderSize + 1 + 4;

  // Bytes past the newest record, as a writer dying mid-record leaves them.
  overwrite(headerSize + 3 * recordSize, std::string(20, '\x5a'));
  EXPECT_EQ(messages(), (std::vector<std::string>{"aaaa", "bbbb", "cccc"}));

  // A changed byte in the second message fails its checksum only.
  overwrite(headerSize + recordSize + recordHeaderSize + 1, "B");
  Morlix::Snapshot snapshot = Morlix::read(path_);
  EXPECT_EQ(snapshot.damagedRecords, 1u);
  ASSERT_EQ(snapshot.records.size(), 2u);
  EXPECT_EQ(snapshot.records[0].message, "aaaa");
  EXPECT_EQ(snapshot.records[1].message, "cccc");

  // A damaged position in the third one leaves no way to walk on.
  overwrite(headerSize + 2 * recordSize, std::string(8, '\0'));
  snapshot = Morlix::read(path_);
  EXPECT_EQ(snapshot.damagedRecords, 2u);
  ASSERT_EQ(snapshot.records.size(), 1u);
  EXPECT_EQ(snapshot.records[0].message, "aaaa");
}

TEST_F(MorlixIntegration, RejectsFilesThatAreNotRings) {
  EXPECT_EQ(readError(path_), "cannot open " + path_ + ": No such file or directory");

  std::ofstream(path_) << "short";
  EXPECT_EQ(readError(path_), path_ + ": too small for a ring buffer header (5 bytes)");

  std::filesystem::resize_file(path_, 8192);
  EXPECT_EQ(readError(path_), path_ + ": not a Morlix ring buffer (bad magic)");

  Morlix::open(path_, 8192);
  Morlix::write(1, "F", 1, "one");
  Morlix::close();
  std::filesystem::resize_file(path_, 9000);
  EXPECT_EQ(readError(path_), path_ + ": header says 8192 bytes but the file has 9000");

  std::filesystem::resize_file(path_, 8192);
  overwrite(8, std::string("\x07\0\0\0", 4));
  EXPECT_EQ(readError(path_), path_ + ": unsupported version 7 (this reader knows 1)");

  overwrite(8, std::string("\x01\0\0\0", 4));
  overwrite(24, std::string("\xff\xff\0\0\0\0\0\0", 8));  // head beyond tail
  EXPECT_EQ(readError(path_), path_ + ": write positions out of range (head 65535, tail 36, capacity 8128)");
}

}  // namespace
