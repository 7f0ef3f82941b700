#include "zarn/host/text_file.hpp"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#ifdef ZARN_HAVE_ZLIB
#include <zlib.h>
#endif

namespace zarn {
namespace host {

namespace {

constexpr unsigned char kGzipMagic0 = 0x1f;
constexpr unsigned char kGzipMagic1 = 0x8b;

std::string readPlain(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw FormatError(path, 0, std::string("cannot open file: ") + std::strerror(errno));
  std::ostringstream content;
  content << in.rdbuf();
  if (in.bad()) throw FormatError(path, 0, "read error");
  return content.str();
}

bool hasGzipMagic(std::string const& content) {
  return content.size() >= 2 && static_cast<unsigned char>(content[0]) == kGzipMagic0 &&
         static_cast<unsigned char>(content[1]) == kGzipMagic1;
}

#ifdef ZARN_HAVE_ZLIB
std::string gunzip(std::string const& path, std::string const& compressed) {
  z_stream stream{};
  // 16 + MAX_WBITS: expect a gzip wrapper (RFC 1952) rather than a raw zlib stream.
  if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) throw FormatError(path, 0, "cannot start gzip decoder");
  std::string out;
  std::vector<char> buffer(1 << 16);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  stream.avail_in = static_cast<uInt>(compressed.size());
  int rc = Z_OK;
  while (true) {
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    rc = inflate(&stream, Z_NO_FLUSH);
    out.append(buffer.data(), buffer.size() - stream.avail_out);
    if (rc == Z_STREAM_END) {
      // Concatenated gzip members are legal; decode them in turn.
      if (stream.avail_in == 0) break;
      if (inflateReset(&stream) != Z_OK) break;
      continue;
    }
    if (rc != Z_OK) break;
    if (stream.avail_in == 0 && stream.avail_out != 0) break;
  }
  std::string const message = stream.msg ? stream.msg : "";
  inflateEnd(&stream);
  if (rc != Z_STREAM_END) {
    if (rc == Z_OK || rc == Z_BUF_ERROR) throw FormatError(path, 0, "gzip stream is truncated");
    throw FormatError(path, 0, "gzip stream is damaged" + (message.empty() ? "" : ": " + message));
  }
  return out;
}
#endif

}  // namespace

FormatError::FormatError(std::string const& file, int line, std::string const& reason)
    : std::runtime_error(locate(file, line, reason)), file_(file), line_(line), reason_(reason) {}

std::string locate(std::string const& file, int line, std::string const& reason) {
  if (line > 0) return file + ":" + std::to_string(line) + ": " + reason;
  return file + ": " + reason;
}

bool gzipSupported() {
#ifdef ZARN_HAVE_ZLIB
  return true;
#else
  return false;
#endif
}

std::string readTextFile(std::string const& path) {
  std::string content = readPlain(path);
  if (!hasGzipMagic(content)) return content;
#ifdef ZARN_HAVE_ZLIB
  return gunzip(path, content);
#else
  throw FormatError(path, 0, "gzip-compressed file, but this build has no zlib; decompress it first");
#endif
}

std::vector<std::string> splitLines(std::string const& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::size_t stop = end;
    if (stop > start && text[stop - 1] == '\r') --stop;
    lines.emplace_back(text, start, stop - start);
    start = end + 1;
  }
  return lines;
}

}  // namespace host
}  // namespace zarn
