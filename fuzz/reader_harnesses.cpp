// Harnesses of the host-side readers (RINEX navigation, gzip, SP3) and of the
// container cipher. The readers may refuse a file only with FormatError; any
// other exception is a defect. Text seeds are committed under fuzz/corpus/.
#include <unistd.h>
#include <zlib.h>

#include <fstream>

#include "harness.hpp"
#include "zarn/host/rinex_nav.hpp"
#include "zarn/host/sp3.hpp"
#include "zarn/support/encryption.hpp"

namespace zarn {
namespace fuzz {
namespace {

std::string textOf(std::uint8_t const* data, std::size_t size) {
  return std::string(reinterpret_cast<char const*>(data), size);
}

template <class Parse>
bool parseOrRefuse(Parse const& parse) {
  try {
    parse();
    return true;
  } catch (host::FormatError const&) {
    return false;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "unexpected exception: %s\n", e.what());
    ZARN_FUZZ_CHECK(!"a reader throws only FormatError");
  }
  return false;
}

void checkCounts(host::NavData const& d) {
  std::size_t const kept = d.gps.size() + d.beidou.size() + d.glonass.size();
  ZARN_FUZZ_CHECK(static_cast<std::size_t>(d.stats.converted) == kept);
  ZARN_FUZZ_CHECK(d.stats.warnings.size() <= host::kMaxWarnings);
  ZARN_FUZZ_CHECK(static_cast<std::size_t>(d.stats.warningCount) >= d.stats.warnings.size());
}

template <class Record, class Eph>
std::vector<Eph> ephemeridesOf(std::vector<Record> const& records) {
  std::vector<Eph> out;
  for (Record const& r : records) out.push_back(r.eph);
  return out;
}

// What the reader converts, written by the writer and read again, is the same
// GPS and BeiDou records.
void rinexRoundTrip(host::NavData const& d) {
  auto const gps = ephemeridesOf<host::GpsNavRecord, core::GpsEphemeris>(d.gps);
  auto const beidou = ephemeridesOf<host::BeidouNavRecord, core::BeidouEphemeris>(d.beidou);
  if (gps.empty() && beidou.empty()) return;
  host::NavWriteOptions options;
  options.date = "20230108 120000 UTC";
  std::string const text = host::formatRinexNav(options, gps, beidou);
  host::NavData again;
  ZARN_FUZZ_CHECK(parseOrRefuse([&] { again = host::parseRinexNav(text, "written"); }));
  ZARN_FUZZ_CHECK((ephemeridesOf<host::GpsNavRecord, core::GpsEphemeris>(again.gps) == gps));
  ZARN_FUZZ_CHECK((ephemeridesOf<host::BeidouNavRecord, core::BeidouEphemeris>(again.beidou) == beidou));
}

void rinexNav(std::uint8_t const* data, std::size_t size) {
  host::NavData d;
  if (!parseOrRefuse([&] { d = host::parseRinexNav(textOf(data, size), "fuzz"); })) return;
  checkCounts(d);
  rinexRoundTrip(d);
}

std::string gzipOf(std::string const& text, int level) {
  z_stream stream{};
  constexpr int kGzipWindowBits = 16 + MAX_WBITS;
  constexpr int kMemLevel = 8;
  ZARN_FUZZ_CHECK(deflateInit2(&stream, level, Z_DEFLATED, kGzipWindowBits, kMemLevel, Z_DEFAULT_STRATEGY) ==
                  Z_OK);
  std::string out(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  ZARN_FUZZ_CHECK(deflate(&stream, Z_FINISH) == Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::string scratchFile(std::string const& content) {
  static std::string const path = "/tmp/zarn_fuzz_" + std::to_string(getpid()) + ".rnx";
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  ZARN_FUZZ_CHECK(static_cast<bool>(out));
  return path;
}

// First byte even: the rest is a file as found on disk (damaged gzip streams
// included). Odd: the rest is text that goes through gzip (level from the
// byte), and reading the compressed file must equal parsing the text.
void rinexNavFile(std::uint8_t const* data, std::size_t size) {
  if (size == 0) return;
  std::string const body = textOf(data + 1, size - 1);
  if ((data[0] & 1) == 0) {
    std::string const path = scratchFile(body);
    host::NavData d;
    if (parseOrRefuse([&] { d = host::readRinexNav(path); })) checkCounts(d);
    return;
  }
  constexpr int kLevels = 10;
  std::string const path = scratchFile(gzipOf(body, (data[0] >> 1) % kLevels));
  host::NavData fromFile;
  host::NavData fromText;
  bool const readFile = parseOrRefuse([&] { fromFile = host::readRinexNav(path); });
  bool const readText = parseOrRefuse([&] { fromText = host::parseRinexNav(body, path); });
  ZARN_FUZZ_CHECK(readFile == readText);
  if (!readFile) return;
  ZARN_FUZZ_CHECK(fromFile.stats.converted == fromText.stats.converted);
  ZARN_FUZZ_CHECK(fromFile.stats.warnings == fromText.stats.warnings);
  ZARN_FUZZ_CHECK((ephemeridesOf<host::GpsNavRecord, core::GpsEphemeris>(fromFile.gps) ==
                   ephemeridesOf<host::GpsNavRecord, core::GpsEphemeris>(fromText.gps)));
}

void sp3(std::uint8_t const* data, std::size_t size) {
  host::Sp3Data d;
  if (!parseOrRefuse([&] { d = host::parseSp3(textOf(data, size), "fuzz"); })) return;
  std::size_t entries = 0;
  for (host::Sp3Epoch const& e : d.epochs) entries += e.entries.size();
  ZARN_FUZZ_CHECK(static_cast<std::size_t>(d.stats.entries) == entries);
  ZARN_FUZZ_CHECK(static_cast<std::size_t>(d.stats.warningCount) >= d.stats.warnings.size());
  if (d.epochs.empty() || d.epochs.front().entries.empty()) return;
  host::Sp3Entry const& first = d.epochs.front().entries.front();
  for (host::Sp3Sample const& s : host::satelliteTrack(d, first.system, first.prn))
    ZARN_FUZZ_CHECK(s.position[0] == s.position[0]);
}

// Deciphering refuses lengths that are not whole blocks and leaves the output
// alone; otherwise enciphering the result gives the input back. The first 24
// bytes also serve as a triple-DES key for the keyed functions.
void cipher(std::uint8_t const* data, std::size_t size) {
  BinaryData const in = bytesOf(data, size);
  BinaryData const sentinel = {0xA5, 0x5A};
  constexpr std::size_t kBlock = 8;
  constexpr std::size_t kTripleKey = 24;
  BinaryData plain = sentinel;
  bool const ok = support::decrypt(in, plain);
  ZARN_FUZZ_CHECK(ok == (in.size() % kBlock == 0));
  if (!ok) {
    ZARN_FUZZ_CHECK(plain == sentinel);
    return;
  }
  ZARN_FUZZ_CHECK(plain.size() == in.size());
  BinaryData back;
  ZARN_FUZZ_CHECK(support::encrypt(plain, back) && back == in);
  if (in.size() < kTripleKey) return;
  char key[kTripleKey];
  for (std::size_t i = 0; i < kTripleKey; ++i) key[i] = static_cast<char>(in[i]);
  BinaryData keyed;
  ZARN_FUZZ_CHECK(support::tripleDesDecrypt(in, key, keyed));
  ZARN_FUZZ_CHECK(support::tripleDesEncrypt(keyed, key, back) && back == in);
  ZARN_FUZZ_CHECK(support::desDecrypt(in, key, keyed));
  ZARN_FUZZ_CHECK(support::desEncrypt(keyed, key, back) && back == in);
  // In place, as the container code calls it.
  BinaryData inPlace = in;
  ZARN_FUZZ_CHECK(support::decrypt(inPlace, inPlace) && inPlace == plain);
}

// Enciphered encodings of real per-satellite records, padded to whole blocks.
std::vector<std::string> cipherSeeds() {
  std::vector<std::string> seeds;
  for (unsigned short sv : {5, 24}) {
    BinaryData plain = encode(support::AssistanceDataFile::defaultAssistance(core::GPS, sv));
    plain.resize((plain.size() + 7) / 8 * 8, 0);
    BinaryData enciphered;
    ZARN_FUZZ_CHECK(support::encrypt(plain, enciphered));
    seeds.push_back(asString(enciphered));
  }
  return seeds;
}

ZARN_FUZZ_HARNESS("rinex_nav", rinexNav, nullptr);
ZARN_FUZZ_HARNESS("rinex_nav_file", rinexNavFile, nullptr);
ZARN_FUZZ_HARNESS("sp3", sp3, nullptr);
ZARN_FUZZ_HARNESS("cipher", cipher, cipherSeeds);

}  // namespace
}  // namespace fuzz
}  // namespace zarn
