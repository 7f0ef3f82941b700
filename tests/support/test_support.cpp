#include "support/test_support.hpp"

#include <sys/stat.h>

namespace zarn {
namespace test {

std::string sharedDir() { return ZARN_SHARED_DIR; }

bool fileExists(std::string const& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string fatalPattern(std::string const& text, std::string const& path) {
  std::string escaped;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
    escaped += c;
  }
  return "FATAL/ZARNLIB: ZARN_THROW\\(" + escaped + "\\) at " + (path.empty() ? std::string("[^:]+") : path) + ":[0-9]+\\. Calling std::abort\\(\\)\\.";
}

}  // namespace test
}  // namespace zarn
