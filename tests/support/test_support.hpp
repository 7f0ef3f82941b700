// Helpers shared by the test executables.
#ifndef ZARN_TESTS_TEST_SUPPORT_HPP
#define ZARN_TESTS_TEST_SUPPORT_HPP

#include <gtest/gtest.h>

#include <string>

namespace zarn {
namespace test {

// Directory with the shared sample data and reference tables; empty when
// the directory is absent.
std::string sharedDir();

// Path below sharedDir(); the calling test is skipped with a clear message
// when the file is not there.
#define ZARN_SHARED_FILE_OR_SKIP(var, relative)                                          \
  std::string const var = ::zarn::test::sharedDir() + "/" + (relative);                  \
  if (!::zarn::test::fileExists(var)) GTEST_SKIP() << "shared data not found: " << var

bool fileExists(std::string const& path);

// The regular expression that a fatal ZARN_THROW line matches for `text`
// logged from the source `path` (repository-relative, any when empty).
std::string fatalPattern(std::string const& text, std::string const& path = "");

}  // namespace test
}  // namespace zarn

#endif
