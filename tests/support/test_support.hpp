// Helpers shared by the test executables.
#ifndef ZARN_TESTS_TEST_SUPPORT_HPP
#define ZARN_TESTS_TEST_SUPPORT_HPP

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zarn {
namespace test {

// Directory with the shared sample data and reference tables; empty when
// the directory is absent.
std::string sharedDir();

// Path below sharedDir(); the calling test is skipped with a clear message
// when the file is not there.
#define ZARN_SHARED_FILE_OR_SKIP(var, relative)                         \
  std::string const var = ::zarn::test::sharedDir() + "/" + (relative); \
  if (!::zarn::test::fileExists(var)) GTEST_SKIP() << "shared data not found: " << var

bool fileExists(std::string const& path);

// The whole file as bytes; empty when it cannot be read.
std::string readFile(std::string const& path);

// build/zarn beside the running test executable.
std::string toolPath();

// The regular expression that a fatal ZARN_THROW line matches for `text`
// logged from the source `path` (repository-relative, any when empty).
std::string fatalPattern(std::string const& text, std::string const& path = "");

// fatalPattern of std::invalid_argument("text").
std::string fatalArgument(std::string const& text, std::string const& path);

// What `run` writes to stderr (the library's log lines off Android).
std::string capturedStderr(std::function<void()> const& run);

// ---- the sample files listed in data/SOURCES.md ----

// (path, content cell) of every file row of the SOURCES.md tables.
std::vector<std::pair<std::string, std::string>> sourceRows();

// The numbers of every "X:123" (and "X:123eph/45sv") in `text`, by letter.
std::map<char, std::pair<int, int>> letterCounts(std::string const& text);

// Whether a listed sample can be read here; says why not when it cannot.
bool sampleReadable(std::string const& path, bool gzipSupported);

}  // namespace test
}  // namespace zarn

#endif
