#include "zarn/host/screening.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <numeric>

#include "zarn/core/records.hpp"
#include "zarn/host/glonass_pipeline.hpp"

namespace zarn {
namespace host {

namespace {

constexpr double kBeidouMaxSeparation = 2.0 * 3600.0;  // s: hourly records, each trusted one hour either side
constexpr double kBeidouTrusted = 3600.0 + 60.0;       // s
// GLONASS: a state every 30 minutes, trusted 15 minutes either side; neighbours compared.
constexpr double kGlonassMaxSeparation = 3600.0;  // s
constexpr double kGlonassTrusted = 900.0 + 60.0;  // s
constexpr double kGlonassGrid = 1800.0;           // s: reference times every 30 minutes of UTC
constexpr double kGlonassGridPhase = 900.0;       // s: ... at a quarter past and a quarter to
// Integration step of the comparison: within a millimetre of the receivers'
// one-second steps, far below the agreement distance.
constexpr double kGlonassComparisonStep = 60.0;  // s

// Seconds of the UTC day of a GLONASS reference time, from its Moscow seconds of day.
double utcSecondOfDay(core::GlonassEphemeris const& eph) {
  constexpr double kMoscowOffset = 3.0 * 3600.0;  // s: Moscow time = UTC + 3 h (GLONASS ICD 3.3.3)
  return std::fmod(static_cast<double>(eph.time.third) - kMoscowOffset + kSecondsPerDay, kSecondsPerDay);
}

class Groups {
 public:
  explicit Groups(std::size_t n) : parent_(n) { std::iota(parent_.begin(), parent_.end(), std::size_t{0}); }
  std::size_t find(std::size_t i) {
    while (parent_[i] != i) i = parent_[i] = parent_[parent_[i]];
    return i;
  }
  void join(std::size_t a, std::size_t b) {
    a = find(a);
    b = find(b);
    if (a != b) parent_[std::max(a, b)] = std::min(a, b);
  }

 private:
  std::vector<std::size_t> parent_;
};

// Orbit and clock words equal: the same upload read twice (merged files).
bool sameContent(Ephemeris const& a, Ephemeris const& b) {
  if (a.sat.system == 'C') return a.beidou == b.beidou;
  if (a.sat.system == 'R') return a.glonass == b.glonass;
  return a.gps == b.gps;
}

double separation(Ephemeris const& a, Ephemeris const& b) {
  double const tm = 0.5 * (a.toe + b.toe);
  support::Vec pa(3), va(3), pb(3), vb(3);
  if (a.sat.system == 'R') {
    glonassBroadcastState(a.glonass, tm, pa, va, kGlonassComparisonStep);
    glonassBroadcastState(b.glonass, tm, pb, vb, kGlonassComparisonStep);
    return support::distance(pa, pb);
  }
  ephemerisState(a, tm, pa, va);
  ephemerisState(b, tm, pb, vb);
  return support::distance(pa, pb);
}

std::string distanceText(double metres) {
  char text[64];
  if (metres >= 10000.0) {
    std::snprintf(text, sizeof text, "%.0f km", metres / 1000.0);
  } else {
    std::snprintf(text, sizeof text, "%.1f m", metres);
  }
  return text;
}

}  // namespace

ScreeningOptions screeningOptionsFor(char system) {
  ScreeningOptions options;
  if (system == 'C') {
    options.maxSeparation = kBeidouMaxSeparation;
    options.trusted = kBeidouTrusted;
  } else if (system == 'R') {
    options.maxSeparation = kGlonassMaxSeparation;
    options.trusted = kGlonassTrusted;
    options.untilAgreement = true;
  }
  return options;
}

ScreeningResult screenEphemerides(std::vector<Ephemeris> const& records, ScreeningOptions const& options) {
  ScreeningResult result;
  if (records.empty()) return result;
  std::string const name = toString(records.front().sat);

  std::vector<Ephemeris> healthy;
  int lastHealth = 0;
  for (Ephemeris const& r : records) {
    if (r.sat.system == 'R') {
      double const second = utcSecondOfDay(r.glonass);
      double const off = std::fmod(second - kGlonassGridPhase + kSecondsPerDay, kGlonassGrid);
      if (off != 0.0) {
        ++result.offGrid;
        char text[240];
        int const s = static_cast<int>(second);
        std::snprintf(
            text, sizeof text,
            "%s: record at %s (UTC %02d:%02d:%02d) left out: %s the 30-minute grid of reference times",
            name.c_str(), r.origin.empty() ? "?" : r.origin.c_str(), s / 3600, s / 60 % 60, s % 60,
            off < 60.0 ? ("stamped " + std::to_string(static_cast<int>(off)) + " s after").c_str() : "off");
        result.notes.push_back(text);
        continue;
      }
    }
    if (r.health != 0) {
      ++result.unhealthy;
      lastHealth = r.health;
      continue;
    }
    bool copy = false;
    for (auto it = healthy.rbegin(); it != healthy.rend() && it->toe == r.toe; ++it) {
      copy = copy || sameContent(*it, r);
    }
    if (copy) {
      ++result.duplicates;
      continue;
    }
    healthy.push_back(r);
  }
  if (result.unhealthy > 0) {
    char text[160];
    std::snprintf(text, sizeof text, "%s: %d unhealthy record%s left out (health %d)", name.c_str(),
                  result.unhealthy, result.unhealthy == 1 ? "" : "s", lastHealth);
    result.notes.push_back(text);
  }
  std::size_t const n = healthy.size();
  if (n == 0) return result;

  // Link every pair of records close enough in time to be compared, when they agree.
  Groups groups(n);
  std::vector<std::vector<std::pair<std::size_t, double>>> compared(n);
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = i + 1; j < n && healthy[j].toe - healthy[i].toe <= options.maxSeparation; ++j) {
      double const d = separation(healthy[i], healthy[j]);
      compared[i].push_back({j, d});
      compared[j].push_back({i, d});
      if (d < options.agreement) {
        groups.join(i, j);
        if (options.untilAgreement) break;
      }
    }
  }
  std::map<std::size_t, std::vector<std::size_t>> members;
  for (std::size_t i = 0; i < n; ++i) members[groups.find(i)].push_back(i);
  std::size_t main = groups.find(n - 1);
  if (members[main].size() < 2) {
    std::size_t latest = 0;
    bool found = false;
    for (auto const& g : members) {
      if (g.second.size() >= 2 && (!found || g.second.back() > latest)) {
        latest = g.second.back();
        main = g.first;
        found = true;
      }
    }
  }

  for (auto const& g : members) {
    if (g.first == main) continue;
    std::vector<std::size_t> const& idx = g.second;
    result.disagreeing += static_cast<int>(idx.size());
    // How far the group is from the kept orbit: the closest comparison with a kept record.
    double closest = std::numeric_limits<double>::infinity();
    for (std::size_t i : idx) {
      for (auto const& c : compared[i]) {
        if (groups.find(c.first) == main) closest = std::min(closest, c.second);
      }
    }
    std::string why = std::isfinite(closest)
                          ? "its orbit disagrees with its neighbours' by " + distanceText(closest)
                          : "no neighbour close enough in time confirms its orbit";
    Ephemeris const& first = healthy[idx.front()];
    char text[320];
    if (idx.size() == 1) {
      std::snprintf(text, sizeof text, "%s: record at %s (toe %s, sqrtA %.1f) left out: %s", name.c_str(),
                    first.origin.empty() ? "?" : first.origin.c_str(), formatGpsTime(first.toe).c_str(),
                    sqrtSemiMajorAxis(first), why.c_str());
    } else {
      std::snprintf(text, sizeof text, "%s: %zu records with toe %s .. %s left out: %s", name.c_str(),
                    idx.size(), formatGpsTime(first.toe).c_str(),
                    formatGpsTime(healthy[idx.back()].toe).c_str(), why.c_str());
    }
    result.notes.push_back(text);
  }

  // One record per toe: the last one given (the later upload).
  for (std::size_t i : members[main]) {
    if (!result.kept.empty() && result.kept.back().toe == healthy[i].toe) {
      ++result.duplicates;
      char text[240];
      std::snprintf(text, sizeof text, "%s: two different records with toe %s; kept %s, left out %s",
                    name.c_str(), formatGpsTime(healthy[i].toe).c_str(), healthy[i].origin.c_str(),
                    result.kept.back().origin.c_str());
      result.notes.push_back(text);
      result.kept.back() = healthy[i];
      continue;
    }
    result.kept.push_back(healthy[i]);
  }
  return result;
}

}  // namespace host
}  // namespace zarn
