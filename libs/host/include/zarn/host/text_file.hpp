// Reading whole text files for the format readers, gzip-compressed or plain,
// and the error type that every host-side reader throws.
#ifndef ZARN_HOST_TEXT_FILE_HPP
#define ZARN_HOST_TEXT_FILE_HPP

#include <stdexcept>
#include <string>
#include <vector>

namespace zarn {
namespace host {

// A file that cannot be read or whose structure is broken beyond recovery.
// what() is "<file>:<line>: <reason>", or "<file>: <reason>" when no line
// applies (line() is then 0).
class FormatError : public std::runtime_error {
 public:
  FormatError(std::string const& file, int line, std::string const& reason);
  std::string const& file() const { return file_; }
  int line() const { return line_; }
  std::string const& reason() const { return reason_; }

 private:
  std::string file_;
  int line_;
  std::string reason_;
};

// "<file>:<line>: <reason>" (the line is left out when 0).
std::string locate(std::string const& file, int line, std::string const& reason);

// True when this build can read gzip-compressed files.
bool gzipSupported();

// The whole content of `path`. Files that start with the gzip magic bytes are
// decompressed (a clear FormatError when this build lacks zlib or the stream is
// damaged or truncated). Throws FormatError when the file cannot be opened or read.
std::string readTextFile(std::string const& path);

// `text` split at '\n' with a trailing '\r' removed from every line; a final
// line without '\n' is kept, an empty text gives no lines.
std::vector<std::string> splitLines(std::string const& text);

}  // namespace host
}  // namespace zarn

#endif
