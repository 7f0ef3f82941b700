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

// The path printed is relative to the repository root.
TEST(FatalPathDeathTest, LogsExpressionAndRepoPathThenAborts) {
  EXPECT_DEATH(
      ZARN_THROW(std::invalid_argument("demo: invalid size r")),
      zarn::test::fatalPattern("std::invalid_argument(\"demo: invalid size r\")", "tests/foundation_test"));
}

TEST(FatalPathDeathTest, RelockingTheMutexFromOneThreadAborts) {
  zs::utility::mutex m;
  EXPECT_TRUE(m.try_lock() && !m.try_lock());
  m.unlock();
  EXPECT_DEATH((m.lock(), m.lock()),
               zarn::test::fatalPattern("lock_error(\"The current thread has already locked the mutex.\")",
                                        "libs/support/src/utility/mutex"));
}
