// Fixed-column field access shared by the RINEX and SP3 readers. A field is
// a column range of a line; a line shorter than the range gives a shorter or
// empty field. Every accessor fails (returns false) rather than guessing.
#ifndef ZARN_HOST_SRC_FIXED_FIELDS_HPP
#define ZARN_HOST_SRC_FIXED_FIELDS_HPP

#include <charconv>
#include <cmath>
#include <cstddef>
#include <string>
#include <system_error>

namespace zarn {
namespace host {
namespace detail {

inline bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

// Characters [begin, begin + width) of `line`, cut at its end.
inline std::string column(std::string const& line, std::size_t begin, std::size_t width) {
  if (begin >= line.size()) return std::string();
  return line.substr(begin, width);
}

inline std::string trim(std::string const& s) {
  std::size_t b = 0;
  std::size_t e = s.size();
  while (b < e && isBlank(s[b])) ++b;
  while (e > b && isBlank(s[e - 1])) --e;
  return s.substr(b, e - b);
}

inline bool blank(std::string const& s) {
  return trim(s).empty();
}

// A complete decimal number: Fortran 'D' exponents, a leading '+' and a
// missing leading digit (".5D+01") are accepted; anything left over, or a
// non-finite value, is not.
inline bool parseDouble(std::string const& text, double& value) {
  std::string s = trim(text);
  if (s.empty()) return false;
  for (char& c : s) {
    if (c == 'D' || c == 'd') c = 'e';
  }
  std::size_t start = (s[0] == '+') ? 1 : 0;
  if (start == s.size()) return false;
  char const* first = s.data() + start;
  char const* last = s.data() + s.size();
  auto const result = std::from_chars(first, last, value, std::chars_format::general);
  if (result.ec != std::errc() || result.ptr != last) return false;
  return std::isfinite(value);
}

// Digits with an optional sign, nothing else.
inline bool parseInt(std::string const& text, long& value) {
  std::string const s = trim(text);
  if (s.empty()) return false;
  std::size_t start = (s[0] == '+') ? 1 : 0;
  if (start == s.size()) return false;
  char const* last = s.data() + s.size();
  auto const result = std::from_chars(s.data() + start, last, value);
  return result.ec == std::errc() && result.ptr == last;
}

}  // namespace detail
}  // namespace host
}  // namespace zarn

#endif
