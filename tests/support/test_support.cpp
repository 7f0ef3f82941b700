#include "support/test_support.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace zarn {
namespace test {

std::string sharedDir() {
  return ZARN_SHARED_DIR;
}

bool fileExists(std::string const& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

std::string readFile(std::string const& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

std::string toolPath() {
  char buffer[4096];
  ssize_t const n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  std::string self = n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string("./x");
  return self.substr(0, self.find_last_of('/')) + "/zarn";
}

std::string fatalPattern(std::string const& text, std::string const& path) {
  std::string escaped;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
    escaped += c;
  }
  return "FATAL/ZARNLIB: ZARN_THROW\\(" + escaped + "\\) at " + (path.empty() ? std::string("[^:]+") : path) +
         ":[0-9]+\\. Calling std::abort\\(\\)\\.";
}

std::string fatalArgument(std::string const& text, std::string const& path) {
  return fatalPattern("std::invalid_argument(\"" + text + "\")", path);
}

std::string capturedStderr(std::function<void()> const& run) {
  testing::internal::CaptureStderr(), run();
  return testing::internal::GetCapturedStderr();
}

std::vector<std::pair<std::string, std::string>> sourceRows() {
  std::vector<std::pair<std::string, std::string>> rows;
  std::istringstream in(readFile(sharedDir() + "/data/SOURCES.md"));
  auto trimmed = [](std::string const& s) {
    std::size_t const from = std::min(s.find_first_not_of(' '), s.size());
    return s.substr(from, s.find_last_not_of(' ') + 1 - from);
  };
  std::string dir, line;
  while (std::getline(in, line)) {
    if (line.rfind("### `", 0) == 0) dir = line.substr(5, line.find("/`") - 5);
    if (line.rfind("| ", 0) != 0 || dir.empty()) continue;
    std::vector<std::string> cells;
    std::istringstream row(line);
    for (std::string cell; std::getline(row, cell, '|');) cells.push_back(trimmed(cell));
    if (cells.size() < 6 || cells[1] == "file") continue;
    rows.emplace_back(sharedDir() + "/data/" + dir + "/" + cells[1], cells[4]);
  }
  return rows;
}

std::map<char, std::pair<int, int>> letterCounts(std::string const& text) {
  std::map<char, std::pair<int, int>> out;
  for (std::size_t i = 0; i + 2 < text.size(); ++i) {
    bool const head = text[i] >= 'A' && text[i] <= 'Z' && text[i + 1] == ':' &&
                      std::isdigit(static_cast<unsigned char>(text[i + 2]));
    if (!head) continue;
    std::size_t end = 0;
    int const first = std::stoi(text.substr(i + 2), &end);
    std::size_t const next = i + 2 + end;
    out[text[i]] = {first, text.compare(next, 4, "eph/") == 0 ? std::stoi(text.substr(next + 4)) : 0};
  }
  return out;
}

bool sampleReadable(std::string const& path, bool gzipSupported) {
  char const* why = !fileExists(path) ? "absent"
                    : path.size() > 3 && path.substr(path.size() - 3) == ".gz" && !gzipSupported
                        ? "built without zlib"
                        : nullptr;
  if (why != nullptr) std::printf("[  SKIP    ] %s: %s\n", why, path.c_str());
  return why == nullptr;
}

}  // namespace test
}  // namespace zarn
