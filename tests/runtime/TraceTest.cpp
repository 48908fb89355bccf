#include "runtime/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/Morlix.h"
#include "tests/support/TestFiles.h"

extern char** environ;

KEL_TRACE_FACILITY("TraceTest")

namespace alphaTrace {
KEL_TRACE_FACILITY("Alpha")
Kel::TraceHandle& handle() { return kelTraceHandle(); }
void trace(int level, char const* text) { KEL_TRACE(level, text); }
}  // namespace alphaTrace

namespace betaTrace {
KEL_TRACE_FACILITY("Beta")
Kel::TraceHandle& handle() { return kelTraceHandle(); }
}  // namespace betaTrace

namespace gammaTrace {
KEL_TRACE_FACILITY("Gamma")
Kel::TraceHandle& handle() { return kelTraceHandle(); }
void trace(int level, char const* text) { KEL_TRACE(level, text); }
}  // namespace gammaTrace

namespace {

using testing::ElementsAre;

// The child of EnvironmentConfiguresTracingAtFirstUse: it traces under the
// environment it was given and leaves before any test runs.
[[maybe_unused]] bool const tracedAsChild = [] {
  if (!std::getenv("TRACE_TEST_CHILD")) return false;
  alphaTrace::trace(2, "alpha two");
  alphaTrace::trace(3, "alpha three");
  gammaTrace::trace(0, "gamma zero");
  gammaTrace::trace(1, "gamma one");
  _exit(0);
}();

std::vector<std::string> lines(std::string const& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

// The messages of the trace lines in text, without time, facility and level.
std::vector<std::string> messages(std::string const& text) {
  std::vector<std::string> result;
  for (std::string const& line : lines(text)) {
    std::size_t space = line.find(' ', line.find(' ', line.find(' ') + 1) + 1);
    result.push_back(space == std::string::npos ? "<not a trace line: " + line + ">" : line.substr(space + 1));
  }
  return result;
}

class TraceTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(Morlix::isOpen()); }
  void TearDown() override { Kel::traceConfigIs(""); }
};

TEST_F(TraceTest, ConfigEnablesLevelsPerFacilityAndReportsMalformedItems) {
  testing::internal::CaptureStderr();
  Kel::traceConfigIs("Alpha/3, Beta ,Foo/x,Foo/12,/3,,Gamma/,Delta/99999999999");
  EXPECT_THAT(lines(testing::internal::GetCapturedStderr()),
              ElementsAre("KEL_TRACE: ignoring \"Foo/x\": level \"x\" is not a number",
                          "KEL_TRACE: ignoring \"Foo/12\": level 12 is out of range 0 to 9",
                          "KEL_TRACE: ignoring \"/3\": empty facility name", "KEL_TRACE: ignoring \"\": empty item",
                          "KEL_TRACE: ignoring \"Gamma/\": missing level after '/'",
                          "KEL_TRACE: ignoring \"Delta/99999999999\": level 99999999999 is out of range 0 to 9"));
  EXPECT_TRUE(alphaTrace::handle().enabled(0));
  EXPECT_TRUE(alphaTrace::handle().enabled(3));
  EXPECT_FALSE(alphaTrace::handle().enabled(4));
  EXPECT_TRUE(betaTrace::handle().enabled(9));
  EXPECT_FALSE(gammaTrace::handle().enabled(0));

  // Items add up; "*" reaches every facility, also one made later.
  testing::internal::CaptureStderr();
  Kel::traceConfigIs("*/6,Beta/1,Late/8");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(alphaTrace::handle().enabled(6));
  EXPECT_FALSE(alphaTrace::handle().enabled(7));
  EXPECT_TRUE(gammaTrace::handle().stderrEnabled(6));
  EXPECT_FALSE(gammaTrace::handle().stderrEnabled(7));
  static Kel::TraceHandle late("Late");
  EXPECT_TRUE(late.enabled(8));
  EXPECT_FALSE(late.enabled(9));

  Kel::traceConfigIs("*");
  EXPECT_TRUE(gammaTrace::handle().enabled(9));
  Kel::traceConfigIs("");
  EXPECT_FALSE(gammaTrace::handle().enabled(0));
  EXPECT_FALSE(late.enabled(0));
}

TEST_F(TraceTest, DisabledStatementDoesNotEvaluateItsArguments) {
  int evaluations = 0;
  auto counted = [&] { return ++evaluations; };
  Kel::traceConfigIs("TraceTest/2");
  testing::internal::CaptureStderr();
  KEL_TRACE(3, "never " << counted());
  EXPECT_EQ(evaluations, 0);
  KEL_TRACE(2, "once " << counted());
  EXPECT_EQ(evaluations, 1);
  EXPECT_THAT(messages(testing::internal::GetCapturedStderr()), ElementsAre("once 1"));
}

TEST_F(TraceTest, StderrLineHasUtcTimeFacilityLevelAndMessage) {
  Kel::traceConfigIs("TraceTest");
  testing::internal::CaptureStderr();
  KEL_TRACE(6, "Requesting replication " << 42 << ' ' << 1.5);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::MatchesRegex("20[0-9][0-9]-[01][0-9]-[0-3][0-9]T[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{6}Z "
                                    "TraceTest 6 Requesting replication 42 1\\.5\n"));
}

struct TracesWhenPrinted {};

std::ostream& operator<<(std::ostream& stream, TracesWhenPrinted) {
  KEL_TRACE(1, "inner " << 7);
  return stream << "value";
}

TEST_F(TraceTest, EachStatementFormatsOnAFreshStream) {
  Kel::traceConfigIs("TraceTest");
  testing::internal::CaptureStderr();
  KEL_TRACE(1, std::hex << 255 << ' ' << std::setprecision(2) << 3.14159);
  KEL_TRACE(1, 255 << ' ' << 3.14159);
  KEL_TRACE(1, "outer " << TracesWhenPrinted{} << " end");
  KEL_TRACE(1, std::string(10000, 'x') << "lost");
  KEL_TRACE(1, "after");
  std::vector<std::string> texts = messages(testing::internal::GetCapturedStderr());
  ASSERT_EQ(texts.size(), 6u);
  EXPECT_EQ(texts[0], "ff 3.1");
  EXPECT_EQ(texts[1], "255 3.14159");
  EXPECT_EQ(texts[2], "inner 7");
  EXPECT_EQ(texts[3], "outer value end");
  EXPECT_EQ(texts[4], std::string(4096, 'x') + " [truncated]");
  EXPECT_EQ(texts[5], "after");
}

TEST_F(TraceTest, StatementKeepsErrno) {
  Kel::traceConfigIs("TraceTest");
  int stderrCopy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(stderrCopy, 0);
  close(STDERR_FILENO);
  errno = EACCES;
  KEL_TRACE(1, "to a closed stderr");
  int errnoAfter = errno;
  dup2(stderrCopy, STDERR_FILENO);
  close(stderrCopy);
  EXPECT_EQ(errnoAfter, EACCES);
}

class TraceIntegration : public TraceTest {
 protected:
  void TearDown() override {
    Morlix::close();
    TraceTest::TearDown();
  }
  TempDir tmp_;
  std::string const dir_ = tmp_.path();
};

TEST_F(TraceIntegration, EveryStatementGoesToMorlixWhileItIsOpen) {
  std::string path = dir_ + "/ring";
  int evaluations = 0;
  auto counted = [&] { return ++evaluations; };
  Morlix::open(path, 8192);
  EXPECT_TRUE(kelTraceHandle().enabled(9));
  testing::internal::CaptureStderr();
  KEL_TRACE(9, "level nine " << counted());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(evaluations, 1);
  Morlix::close();
  EXPECT_FALSE(kelTraceHandle().enabled(9));
  KEL_TRACE(9, "not recorded " << counted());
  EXPECT_EQ(evaluations, 1);

  Morlix::Snapshot snapshot = Morlix::read(path);
  ASSERT_EQ(snapshot.records.size(), 1u);
  EXPECT_EQ(snapshot.records[0].facility, "TraceTest");
  EXPECT_EQ(snapshot.records[0].level, 9);
  EXPECT_EQ(snapshot.records[0].message, "level nine 1");
}

TEST_F(TraceIntegration, EnvironmentConfiguresTracingAtFirstUse) {
  std::string ring = dir_ + "/ring";
  std::string errors = dir_ + "/stderr";
  std::vector<std::string> variables{"TRACE_TEST_CHILD=1", "KEL_TRACE=Alpha/2, Beta/x ,*/0", "MORLIX_FILE=" + ring,
                                     "MORLIX_SIZE=8K"};
  for (char** variable = environ; *variable; ++variable) {
    std::string_view text = *variable;
    if (!text.starts_with("KEL_TRACE=") && !text.starts_with("MORLIX_")) variables.emplace_back(text);
  }
  std::vector<char*> environment;
  for (std::string& variable : variables) environment.push_back(variable.data());
  environment.push_back(nullptr);
  char program[] = "runtime_tests";
  char* argv[] = {program, nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid;
  int error = posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv, environment.data());
  posix_spawn_file_actions_destroy(&actions);
  ASSERT_EQ(error, 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  std::stringstream written;
  written << std::ifstream(errors).rdbuf();
  std::vector<std::string> stderrLines = lines(written.str());
  ASSERT_EQ(stderrLines.size(), 3u);
  EXPECT_EQ(stderrLines[0], "KEL_TRACE: ignoring \"Beta/x\": level \"x\" is not a number");
  EXPECT_THAT(stderrLines[1], testing::EndsWith(" Alpha 2 alpha two"));
  EXPECT_THAT(stderrLines[2], testing::EndsWith(" Gamma 0 gamma zero"));

  EXPECT_EQ(std::filesystem::file_size(ring), 8192u);
  std::string recorded;
  for (Morlix::Record const& record : Morlix::read(ring).records) recorded += Morlix::line(record);
  EXPECT_THAT(messages(recorded), ElementsAre("alpha two", "alpha three", "gamma zero", "gamma one"));
}

}  // namespace
