// The assistance-data container: load() on enciphered containers, and the
// plain body through deserialize(), which the checksum would otherwise keep
// out of reach of almost every mutation.
//
// Both start from a loaded file so that "a refused input leaves the file
// unchanged" compares against real content. Stored parameters are quantised:
// what loads must survive one more save and load as an equal file with the
// same bytes (quantisation is idempotent after the first pass).
#include "harness.hpp"
#include "zarn/support/assistance_data.hpp"

namespace zarn {
namespace fuzz {
namespace {

using support::AssistanceDataFile;

constexpr unsigned kCreationTime = 1157328000u;  // GPS s, 2016-09-08
constexpr std::size_t kBlockBytes = 8;           // triple-DES block

// Every satellite of the constellation with its built-in parameters, one
// clock model and two outages, so the optional blocks are present.
AssistanceDataFile defaultFile(core::GnssType gnss, unsigned short satellites) {
  AssistanceDataFile file(gnss);
  file.setCreationTime(kCreationTime);
  file.setLeapSeconds({support::LeapInfo{1025136017, 17}, support::LeapInfo{1167264018, 18}});
  for (unsigned short sv = 1; sv <= satellites; ++sv) {
    support::AssistanceData a = AssistanceDataFile::defaultAssistance(gnss, sv);
    if (sv == 2) {
      a.clockModelParams[0] = kCreationTime;
      a.clockModelParams[1] = 1.5e-12;
      a.outages.push_back(support::TocPeriod{core::Toc{0, 1913, 3600}, core::Toc{0, 1913, 7200}, ""});
      a.outages.push_back(support::TocPeriod{core::Toc{0, 1914, 0}, core::Toc{0, 1914, 86400}, ""});
    }
    file.storeAssistance(sv, a);
  }
  return file;
}

std::vector<AssistanceDataFile> seedFiles() {
  return {defaultFile(core::GPS, 32), defaultFile(core::BEIDOU, 14), defaultFile(core::GLONASS, 24)};
}

BinaryData saved(AssistanceDataFile file, std::uint32_t format) {
  BinaryData out;
  ZARN_FUZZ_CHECK(file.save(out, format));
  return out;
}

BinaryData body(AssistanceDataFile file, std::uint32_t format) {
  BinaryData out;
  ZARN_FUZZ_CHECK(file.serialize(out, format));
  return out;
}

bool refusedStatus(core::Status status) {
  return status == core::CORRUPTED_DATA || status == core::INVALID_GNSS_TYPE ||
         status == core::UNSUPPORTED_VERSION;
}

void containerLoad(std::uint8_t const* data, std::size_t size) {
  static BinaryData const primed = saved(defaultFile(core::GPS, 32), 0);
  BinaryData const in = bytesOf(data, size);
  AssistanceDataFile file(core::GPS);
  ZARN_FUZZ_CHECK(file.load(primed) == core::OK);
  AssistanceDataFile const reference(file);
  core::Status const status = file.load(in);
  if (status != core::OK) {
    ZARN_FUZZ_CHECK(refusedStatus(status));
    ZARN_FUZZ_CHECK(file == reference);
    return;
  }
  ZARN_FUZZ_CHECK(in.size() % kBlockBytes == 0);
  BinaryData const once = saved(file, file.format());
  AssistanceDataFile copy(core::BEIDOU);
  ZARN_FUZZ_CHECK(copy.load(once) == core::OK);
  BinaryData const twice = saved(copy, copy.format());
  ZARN_FUZZ_CHECK(twice == once);
  AssistanceDataFile again(core::GPS);
  ZARN_FUZZ_CHECK(again.load(twice) == core::OK);
  ZARN_FUZZ_CHECK(again == copy);
}

void containerBody(std::uint8_t const* data, std::size_t size) {
  static BinaryData const primed = body(defaultFile(core::GPS, 32), 0);
  BinaryData const in = bytesOf(data, size);
  AssistanceDataFile file(core::GPS);
  std::size_t p = 0;
  ZARN_FUZZ_CHECK(file.deserialize(primed, p) == core::OK && p == primed.size());
  AssistanceDataFile const reference(file);
  std::size_t index = 0;
  core::Status const status = file.deserialize(in, index);
  if (status != core::OK) {
    ZARN_FUZZ_CHECK(refusedStatus(status));
    ZARN_FUZZ_CHECK(index == 0);
    ZARN_FUZZ_CHECK(file == reference);
    return;
  }
  ZARN_FUZZ_CHECK(index <= in.size());
  BinaryData const once = body(file, file.format());
  ZARN_FUZZ_CHECK(once.size() == index);
  AssistanceDataFile copy(core::BEIDOU);
  std::size_t at = 0;
  ZARN_FUZZ_CHECK(copy.deserialize(once, at) == core::OK && at == once.size());
  BinaryData const twice = body(copy, copy.format());
  ZARN_FUZZ_CHECK(twice == once);
  AssistanceDataFile again(core::GPS);
  at = 0;
  ZARN_FUZZ_CHECK(again.deserialize(twice, at) == core::OK && again == copy);
}

// Current format of each constellation and the oldest one of GPS and GLONASS
// (BeiDou has only format 0 and its current one; 0 asks for the current).
template <BinaryData (*write)(AssistanceDataFile, std::uint32_t)>
std::vector<std::string> seedsOf() {
  std::vector<std::string> seeds;
  for (AssistanceDataFile const& file : seedFiles()) {
    seeds.push_back(asString(write(file, 0)));
    if (file.gnss() != core::BEIDOU) seeds.push_back(asString(write(file, 1)));
  }
  return seeds;
}

ZARN_FUZZ_HARNESS("container_load", containerLoad, seedsOf<saved>);
ZARN_FUZZ_HARNESS("container_body", containerBody, seedsOf<body>);

}  // namespace
}  // namespace fuzz
}  // namespace zarn
