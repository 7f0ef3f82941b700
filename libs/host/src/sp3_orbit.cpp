#include "zarn/host/sp3_orbit.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace zarn {
namespace host {

namespace {

constexpr int kPoints = 10;             // Lagrange nodes: a ninth-degree polynomial
constexpr double kGapTolerance = 1.01;  // spacing above the nominal interval by this factor is a gap
constexpr double kSameEpoch = 1e-3;     // s: epochs closer than this are one epoch
constexpr double kGeosynchronousRadius = 35.0e6;  // m: BeiDou MEO orbits stay well below, GEO/IGSO above
constexpr double kGeoLatitudeRatio = 0.1;         // |z| / r: a GEO stays within a few degrees of the equator

}  // namespace

Sp3Orbit::Sp3Orbit(std::vector<Sp3Data> const& files) {
  struct Point {
    double t, x, y, z, clock;
  };
  std::map<SatelliteId, std::vector<Point>> points;
  for (Sp3Data const& file : files) {
    for (Sp3Epoch const& epoch : file.epochs) {
      for (Sp3Entry const& e : epoch.entries) {
        if (e.system != 'G' && e.system != 'R' && e.system != 'C') continue;
        points[{e.system, e.prn}].push_back(
            {epoch.time, e.position[0], e.position[1], e.position[2], e.clock});
      }
    }
  }
  bool first = true;
  for (auto& entry : points) {
    std::vector<Point>& p = entry.second;
    std::stable_sort(p.begin(), p.end(), [](Point const& a, Point const& b) { return a.t < b.t; });
    Track track;
    for (Point const& q : p) {
      if (!track.t.empty() && q.t - track.t.back() < kSameEpoch) continue;
      track.t.push_back(q.t);
      track.x.push_back(q.x);
      track.y.push_back(q.y);
      track.z.push_back(q.z);
      track.clock.push_back(q.clock);
    }
    track.interval = std::numeric_limits<double>::infinity();
    for (std::size_t i = 1; i < track.t.size(); ++i)
      track.interval = std::min(track.interval, track.t[i] - track.t[i - 1]);
    if (track.t.size() < static_cast<std::size_t>(kPoints)) continue;
    start_ = first ? track.t.front() : std::min(start_, track.t.front());
    end_ = first ? track.t.back() : std::max(end_, track.t.back());
    first = false;
    tracks_[entry.first] = std::move(track);
  }
}

bool Sp3Orbit::state(SatelliteId const& sat, double t, support::Vec& pos, support::Vec* vel) const {
  auto it = tracks_.find(sat);
  if (it == tracks_.end()) return false;
  Track const& tr = it->second;
  std::size_t const n = tr.t.size();
  if (t < tr.t.front() - kSameEpoch || t > tr.t.back() + kSameEpoch) return false;
  std::size_t const above =
      static_cast<std::size_t>(std::upper_bound(tr.t.begin(), tr.t.end(), t) - tr.t.begin());
  std::size_t startIndex = above >= kPoints / 2 ? above - kPoints / 2 : 0;
  startIndex = std::min(startIndex, n - kPoints);
  if (tr.t[startIndex + kPoints - 1] - tr.t[startIndex] > (kPoints - 1) * tr.interval * kGapTolerance)
    return false;

  // Lagrange basis on the time offsets, scaled by the interval for conditioning.
  double const t0 = tr.t[startIndex];
  double const scale = tr.interval;
  double u[kPoints];
  for (int i = 0; i < kPoints; ++i) u[i] = (tr.t[startIndex + i] - t0) / scale;
  double const x = (t - t0) / scale;
  double value[3] = {0, 0, 0};
  double rate[3] = {0, 0, 0};
  for (int i = 0; i < kPoints; ++i) {
    double li = 1.0;
    double dli = 0.0;
    for (int j = 0; j < kPoints; ++j) {
      if (j == i) continue;
      double const factor = (x - u[j]) / (u[i] - u[j]);
      dli = dli * factor + li / (u[i] - u[j]);
      li *= factor;
    }
    std::size_t const k = startIndex + static_cast<std::size_t>(i);
    value[0] += li * tr.x[k];
    value[1] += li * tr.y[k];
    value[2] += li * tr.z[k];
    rate[0] += dli * tr.x[k];
    rate[1] += dli * tr.y[k];
    rate[2] += dli * tr.z[k];
  }
  if (pos.size() != 3) pos.resize(3);
  for (int c = 0; c < 3; ++c) pos(c) = value[c];
  if (vel != nullptr) {
    if (vel->size() != 3) vel->resize(3);
    for (int c = 0; c < 3; ++c) (*vel)(c) = rate[c] / scale;
  }
  return true;
}

double Sp3Orbit::clock(SatelliteId const& sat, double t) const {
  auto it = tracks_.find(sat);
  if (it == tracks_.end()) return std::numeric_limits<double>::quiet_NaN();
  Track const& tr = it->second;
  auto above = std::lower_bound(tr.t.begin(), tr.t.end(), t);
  std::size_t best = static_cast<std::size_t>(above - tr.t.begin());
  if (best == tr.t.size() || (best > 0 && t - tr.t[best - 1] < tr.t[best] - t)) --best;
  if (std::fabs(tr.t[best] - t) > 0.5 * tr.interval) return std::numeric_limits<double>::quiet_NaN();
  return tr.clock[best];
}

double Sp3Orbit::interpolatedClock(SatelliteId const& sat, double t) const {
  constexpr double kLargestGap = 1.5;  // intervals between the two epochs used
  double const absent = std::numeric_limits<double>::quiet_NaN();
  auto it = tracks_.find(sat);
  if (it == tracks_.end() || it->second.t.empty()) return absent;
  Track const& tr = it->second;
  auto above = std::lower_bound(tr.t.begin(), tr.t.end(), t);
  std::size_t hi = static_cast<std::size_t>(above - tr.t.begin());
  if (hi < tr.t.size() && tr.t[hi] == t) return tr.clock[hi];
  if (hi == 0 || hi == tr.t.size()) return absent;
  std::size_t const lo = hi - 1;
  double const span = tr.t[hi] - tr.t[lo];
  if (span > kLargestGap * tr.interval) return absent;
  double const w = (t - tr.t[lo]) / span;
  return tr.clock[lo] + w * (tr.clock[hi] - tr.clock[lo]);  // NaN propagates
}

std::vector<SatelliteId> Sp3Orbit::satellites() const {
  std::vector<SatelliteId> list;
  for (auto const& entry : tracks_) list.push_back(entry.first);
  return list;
}

bool Sp3Orbit::span(SatelliteId const& sat, double& first, double& last) const {
  auto it = tracks_.find(sat);
  if (it == tracks_.end()) return false;
  first = it->second.t.front();
  last = it->second.t.back();
  return true;
}

support::BeidouSvType Sp3Orbit::svType(SatelliteId const& sat) const {
  if (sat.system != 'C') return support::UNDEFINED_SAT_TYPE;
  auto it = tracks_.find(sat);
  if (it == tracks_.end()) return support::UNDEFINED_SAT_TYPE;
  Track const& tr = it->second;
  double radius = 0.0;
  double zRatio = 0.0;
  for (std::size_t i = 0; i < tr.t.size(); ++i) {
    double const r = std::sqrt(tr.x[i] * tr.x[i] + tr.y[i] * tr.y[i] + tr.z[i] * tr.z[i]);
    radius = std::max(radius, r);
    zRatio = std::max(zRatio, std::fabs(tr.z[i]) / r);
  }
  if (radius < kGeosynchronousRadius) return support::MEO;
  return zRatio < kGeoLatitudeRatio ? support::GEO : support::IGSO;
}

}  // namespace host
}  // namespace zarn
