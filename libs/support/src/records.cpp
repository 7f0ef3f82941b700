#include "zarn/core/records.hpp"

#include "record_fields.hpp"

namespace zarn {
namespace core {

using support::detail::fields;

bool operator==(GpsEphemeris const& a, GpsEphemeris const& b) {
  return fields(a) == fields(b);
}
bool operator==(BeidouEphemeris const& a, BeidouEphemeris const& b) {
  return fields(a) == fields(b);
}
bool operator==(GlonassEphemeris const& a, GlonassEphemeris const& b) {
  return fields(a) == fields(b);
}
bool operator==(GpsAlmanac const& a, GpsAlmanac const& b) {
  return fields(a) == fields(b);
}
bool operator==(GlonassAlmanac const& a, GlonassAlmanac const& b) {
  return fields(a) == fields(b);
}
bool operator==(BeidouAlmanac const& a, BeidouAlmanac const& b) {
  return fields(a) == fields(b);
}

}  // namespace core
}  // namespace zarn
