// libFuzzer entry points and the harness registry.
//
//   fuzz_<name> [libFuzzer options] [corpus...]   run one harness (a link to zarn_fuzz)
//   ZARN_FUZZ_HARNESS=<name> zarn_fuzz ...         the same
//   zarn_fuzz --list                                 names, one a line
//   zarn_fuzz --write-seeds DIR                      DIR/<name>/seed-N for every harness with seeds
#include <sys/stat.h>

#include <android/log.h>

#include <cstring>
#include <fstream>
#include <map>

#include "harness.hpp"

namespace zarn {
namespace fuzz {

namespace {

struct Entry {
  Harness run;
  SeedMaker seeds;
};

std::map<std::string, Entry>& registry() {
  static std::map<std::string, Entry> harnesses;
  return harnesses;
}

Harness selected = nullptr;
std::string selectedName;

int writeSeeds(std::string const& dir) {
  mkdir(dir.c_str(), 0755);
  for (auto const& [name, entry] : registry()) {
    if (!entry.seeds) continue;
    std::string const sub = dir + "/" + name;
    mkdir(sub.c_str(), 0755);
    std::vector<std::string> const seeds = entry.seeds();
    for (std::size_t i = 0; i < seeds.size(); ++i) {
      std::ofstream out(sub + "/seed-" + std::to_string(i), std::ios::binary);
      out << seeds[i];
      if (!out) {
        std::fprintf(stderr, "zarn_fuzz: cannot write %s\n", sub.c_str());
        return 1;
      }
    }
    std::printf("%s: %zu seeds\n", name.c_str(), seeds.size());
  }
  return 0;
}

}  // namespace

Registration::Registration(char const* name, Harness run, SeedMaker seeds) {
  registry()[name] = Entry{run, seeds};
}

void propertyFailed(char const* what, char const* file, int line) {
  std::fprintf(stderr, "fuzz property failed in %s: %s at %s:%d\n", selectedName.c_str(), what, file, line);
  std::abort();
}

}  // namespace fuzz
}  // namespace zarn

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  using namespace zarn::fuzz;
  if (*argc >= 2 && std::strcmp((*argv)[1], "--list") == 0) {
    for (auto const& entry : registry()) std::printf("%s\n", entry.first.c_str());
    std::exit(0);
  }
  if (*argc >= 3 && std::strcmp((*argv)[1], "--write-seeds") == 0) std::exit(writeSeeds((*argv)[2]));
  std::string name;
  if (char const* fromEnv = std::getenv("ZARN_FUZZ_HARNESS")) name = fromEnv;
  if (name.empty()) {
    std::string const self = (*argv)[0];
    std::string const base = self.substr(self.find_last_of('/') + 1);
    if (base.rfind("fuzz_", 0) == 0) name = base.substr(5);
  }
  auto const found = registry().find(name);
  if (found == registry().end()) {
    std::fprintf(stderr,
                 "zarn_fuzz: no harness \"%s\"; run as fuzz_<name> or set ZARN_FUZZ_HARNESS (--list)\n",
                 name.c_str());
    std::exit(2);
  }
  selected = found->second.run;
  selectedName = name;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  zarn::fuzz::selected(data, size);
  return 0;
}

// The library's log goes nowhere while fuzzing (every rejected input logs),
// except the fatal line that precedes an abort.
extern "C" int __android_log_write(int prio, const char* tag, const char* text) {
  if (prio < ANDROID_LOG_FATAL) return 0;
  return std::fprintf(stderr, "FATAL/%s: %s\n", tag ? tag : "", text ? text : "");
}

extern "C" int __android_log_vprint(int prio, const char* tag, const char* fmt, va_list ap) {
  if (prio < ANDROID_LOG_FATAL) return 0;
  int n = std::fprintf(stderr, "FATAL/%s: ", tag ? tag : "");
  n += std::vfprintf(stderr, fmt, ap);
  return n + std::fprintf(stderr, "\n");
}
