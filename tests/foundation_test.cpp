// Logging, the fatal path and the mutex.
#include <gtest/gtest.h>

#include <string>

#include "libs/support/src/log_internal.hpp"
#include "support/test_support.hpp"
#include "zarn/support.hpp"  // the umbrella header must stay self-contained

namespace zs = zarn::support;

TEST(Log, FoldsSeparatorsAndSkipsEmptyText) {
  testing::internal::CaptureStderr();
  zs::log::print(zs::log::ERROR, "Tag", "  first   second  ");
  zs::log::print(zs::log::ERROR, "Tag", "");
  zs::log::print(zs::log::ERROR, "Tag", "\t\nline\r\nbreaks\v\fhere\n");
  zs::log::printFormatted(zs::log::INFO, "Tag", "%s", "");
  std::string const none;
  zs::log::printFormatted(zs::log::INFO, "Tag", none.c_str(), 0);  // NOLINT
  zs::log::printFormatted(zs::log::WARNING, "Fmt", "value %d of %s", 7, "x");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ERROR/Tag: first second\nERROR/Tag: line breaks here\nINFO/Tag: \nWARN/Fmt: value 7 of x\n");
}

namespace {
int const failLine = __LINE__ + 2;
void fail() {
  ZARN_THROW(std::invalid_argument("demo: invalid size r"));
}
}  // namespace

TEST(FatalPathDeathTest, LogsExpressionRepoPathAndLineThenAborts) {
  EXPECT_DEATH(fail(), zarn::test::fatalPattern("std::invalid_argument(\"demo: invalid size r\")"));
  // The path printed is relative to the repository root and the line is real.
  EXPECT_DEATH(fail(), "at tests/foundation_test:" + std::to_string(failLine) + "\\.");
}

TEST(FatalPathDeathTest, RelockingTheMutexFromOneThreadAborts) {
  EXPECT_DEATH(
      {
        zs::utility::mutex m;
        m.lock();
        m.lock();
      },
      zarn::test::fatalPattern("lock_error(\"The current thread has already locked the mutex.\")",
                               "libs/support/src/utility/mutex"));
}

TEST(Mutex, TryLockReportsOwnership) {
  zs::utility::mutex m;
  EXPECT_TRUE(m.try_lock());
  EXPECT_FALSE(m.try_lock());
  m.unlock();
  m.lock();
  m.unlock();
}
