#include "zarn/support/force_model.hpp"

#include <cmath>
#include <stdexcept>

#include "force_model/geopotential.hpp"
#include "force_model/radiation_pressure.hpp"
#include "force_model/sun_moon_grid.hpp"
#include "force_model/third_body.hpp"
#include "force_model/vector3.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/serialization.hpp"

namespace zarn {
namespace support {
namespace {

// Mean rate of the Earth's rotation (Aoki et al. 1982).
constexpr double kEarthRotationRate = 7.2921158553e-5;  // rad/s

// Variational state of the rkf78 adapter: position, velocity, two model
// parameters, then the 8x8 transition matrix.
constexpr unsigned kParameters = 8;
constexpr unsigned kVariationalSize = kParameters + kParameters * kParameters;  // 72

using forces::dot3;
using forces::Mat3;

void toArray(Vec const& v, double out[3]) {
  out[0] = v(0);
  out[1] = v(1);
  out[2] = v(2);
}

void setVec(Vec& v, double const a[3]) {
  if (v.size() != 3) v.resize(3, false);
  v(0) = a[0];
  v(1) = a[1];
  v(2) = a[2];
}

void toMat3(Mat const& m, Mat3& out) {
  bool const ok = m.size1() == 3 && m.size2() == 3;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) out[i][j] = ok ? m(i, j) : (i == j ? 1.0 : 0.0);
}

}  // namespace

struct ForceModel::Details {
  bool accDerivatives = true;
  bool srpComputation = false;
  AssistanceData assistanceData;
  InertialFrameInfo inertialFrameInfo;
  EopInfo eopInfo;
  std::vector<LeapInfo> leapInfo;
  int numberOfGeopotentialCoefficients = 8;
  bool accurateSunMoon = false;
  Gj8Integrator gj8Integrator;

  // Sun and Moon (J2000 axes) of the last forceModel time: the Gauss-Jackson
  // corrector evaluates each epoch several times. Never serialized: both are
  // functions of the time alone.
  forces::SunMoonGrid sunMoonGrid;
  double sunMoonTime = std::nan("");
  double moonJ2000[3] = {0.0, 0.0, 0.0};
  double sunJ2000[3] = {0.0, 0.0, 0.0};

  // Derived from the fields above by refresh(); never serialized.
  Mat3 inertial;  // M_I
  Mat3 eop;       // E
  Mat3 eopDx;     // dE/dxp
  Mat3 eopDy;     // dE/dyp

  Details() { refresh(); }

  void refresh() {
    toMat3(inertialFrameInfo.matrix, inertial);
    toMat3(eopInfo.matrix, eop);
    // The pole parameters act through W = R2(-xp) R1(-yp).
    Mat dx, dy;
    polarMotionPartials(eopInfo.eop, dx, dy);
    toMat3(dx, eopDx);
    toMat3(dy, eopDy);
  }
};

ForceModel::ForceModel() : details_(new Details) {}
ForceModel::~ForceModel() {
  delete details_;
}

void ForceModel::setAccDerivatives(bool on) {
  details_->accDerivatives = on;
}
void ForceModel::setSrpComputation(bool on) {
  details_->srpComputation = on;
}
void ForceModel::setNumberOfGeopotentialCoefficients(int n) {
  details_->numberOfGeopotentialCoefficients = n;
}
int ForceModel::getNumberOfGeopotentialCoefficients() const {
  return details_->numberOfGeopotentialCoefficients;
}
void ForceModel::setLeapInfo(std::vector<LeapInfo> const& leapInfo) {
  details_->leapInfo = leapInfo;
}
std::vector<LeapInfo> ForceModel::getLeapInfo() const {
  return details_->leapInfo;
}
void ForceModel::setEopInfo(EopInfo const& eopInfo) {
  details_->eopInfo = eopInfo;
  details_->refresh();
}
EopInfo ForceModel::getEopInfo() const {
  return details_->eopInfo;
}
void ForceModel::setInertialFrameInfo(InertialFrameInfo const& info) {
  details_->inertialFrameInfo = info;
  details_->refresh();
}
InertialFrameInfo ForceModel::getInertialFrameInfo() const {
  return details_->inertialFrameInfo;
}
void ForceModel::setAssistanceData(AssistanceData const& data) {
  details_->assistanceData = data;
}
AssistanceData ForceModel::getAssistanceData() const {
  return details_->assistanceData;
}
Gj8Integrator& ForceModel::getGj8Integrator() {
  return details_->gj8Integrator;
}
void ForceModel::setAccurateSunMoon(bool on) {
  details_->accurateSunMoon = on;
  details_->sunMoonTime = std::nan("");
}

bool ForceModel::operator==(ForceModel const& other) const {
  Details const& a = *details_;
  Details const& b = *other.details_;
  return a.accDerivatives == b.accDerivatives && a.srpComputation == b.srpComputation &&
         a.assistanceData == b.assistanceData && a.inertialFrameInfo == b.inertialFrameInfo &&
         a.eopInfo == b.eopInfo && a.leapInfo == b.leapInfo &&
         a.numberOfGeopotentialCoefficients == b.numberOfGeopotentialCoefficients &&
         a.gj8Integrator == b.gj8Integrator;
}

bool ForceModel::serialize(BinaryData& out) const {
  Details const& d = *details_;
  std::size_t const start = out.size();
  unsigned int count = 0;
  bool const ok =
      support::serialize(d.accDerivatives, out, count) && support::serialize(d.assistanceData, out, count) &&
      support::serialize(d.inertialFrameInfo, out, count) && support::serialize(d.eopInfo, out, count) &&
      support::serialize(d.leapInfo, out, count) &&
      support::serialize(d.numberOfGeopotentialCoefficients, out, count) && d.gj8Integrator.serialize(out);
  if (!ok) out.resize(start);
  return ok;
}

namespace {
// Frame matrices are either absent or 3x3.
bool frameMatrix(Mat const& m) {
  return (m.size1() == 0 && m.size2() == 0) || (m.size1() == 3 && m.size2() == 3);
}
}  // namespace

bool ForceModel::deserialize(BinaryData const& in, unsigned int& position) {
  Details* fresh = new Details;
  unsigned int index = position;
  bool const ok = support::deserialize(in, index, fresh->accDerivatives) &&
                  support::deserialize(in, index, fresh->assistanceData) &&
                  support::deserialize(in, index, fresh->inertialFrameInfo) &&
                  support::deserialize(in, index, fresh->eopInfo) &&
                  support::deserialize(in, index, fresh->leapInfo) &&
                  support::deserialize(in, index, fresh->numberOfGeopotentialCoefficients) &&
                  fresh->gj8Integrator.deserialize(in, index) &&
                  frameMatrix(fresh->inertialFrameInfo.matrix) && frameMatrix(fresh->eopInfo.matrix);
  if (!ok) {
    delete fresh;
    return false;
  }
  fresh->refresh();
  std::swap(details_, fresh);
  delete fresh;
  position = index;
  return true;
}

void ForceModel::satCoefficients(Vec const& r, unsigned int n, unsigned int m, Mat& V, Mat& W) {
  if (V.size1() != n + 1 || V.size2() != m + 1)
    ZARN_THROW(std::invalid_argument("satCoefficients: invalid size V"));
  if (W.size1() != n + 1 || W.size2() != m + 1)
    ZARN_THROW(std::invalid_argument("satCoefficients: invalid size W"));
  V.clear();
  W.clear();
  double p[3];
  toArray(r, p);
  forces::cunninghamFunctions(p, static_cast<int>(n), static_cast<int>(m), V, W);
}

void ForceModel::geopotential(Vec const& r, int n, int /*m*/, Vec& acc, Mat& partials) const {
  double p[3], a[3];
  Mat3 g;
  toArray(r, p);
  bool const withGradient = details_->accDerivatives;
  forces::gravity(p, n, a, withGradient ? &g : nullptr);
  setVec(acc, a);
  if (!withGradient) return;
  if (partials.size1() != 3 || partials.size2() != 3) partials.resize(3, 3, false);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) partials(i, j) = g[i][j];
}

void ForceModel::sunMoonCoord(double t, Vec& moon, Vec& sun) {
  double m[3], s[3];
  forces::sunMoonJ2000(t, m, s);
  setVec(moon, m);
  setVec(sun, s);
}

void ForceModel::sunMoonCoordAccurate(double t, Vec& moon, Vec& sun) {
  double m[3], s[3];
  forces::sunMoonJ2000Accurate(t, m, s);
  setVec(moon, m);
  setVec(sun, s);
}

void ForceModel::sunMoonAcceleration(double t, int leapSeconds, Vec const& r, Vec& acc) {
  double moon[3], sun[3];
  forces::sunMoonOfDate(t, leapSeconds, moon, sun);
  double p[3];
  toArray(r, p);
  forces::ThirdBody moonTerm, sunTerm;
  forces::sunMoonAttraction(moon, sun, p, moonTerm, sunTerm);
  double const a[3] = {moonTerm.acc[0] + sunTerm.acc[0], moonTerm.acc[1] + sunTerm.acc[1],
                       moonTerm.acc[2] + sunTerm.acc[2]};
  setVec(acc, a);
}

double ForceModel::shadowFunction(Vec const& r, Vec const& sun) const {
  double p[3], s[3];
  toArray(r, p);
  toArray(sun, s);
  return forces::shadowFraction(p, s);
}

bool ForceModel::isEclipsed(Vec const& r, double t) const {
  double moon[3], sun[3], p[3], s[3];
  (details_->accurateSunMoon ? forces::sunMoonJ2000Accurate : forces::sunMoonJ2000)(t, moon, sun);
  Mat3 const& mi = details_->inertial;
  for (int i = 0; i < 3; ++i) s[i] = mi[i][0] * sun[0] + mi[i][1] * sun[1] + mi[i][2] * sun[2];
  toArray(r, p);
  return forces::shadowFraction(p, s) < 1.0;
}

void ForceModel::solarRadiationPressure(Vec const& r, Vec const& sun, Vec& acc, Mat& partials) const {
  double p[3], s[3], a[3], P[3][8];
  toArray(r, p);
  toArray(sun, s);
  Details const& d = *details_;
  forces::radiationPressure(p, s, d.assistanceData.srp[0], d.assistanceData.srp[1], a, P, d.accDerivatives,
                            d.srpComputation);
  setVec(acc, a);
  if (!d.accDerivatives) return;
  if (partials.size1() != 3 || partials.size2() != 8) partials.resize(3, 8, false);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 8; ++j) partials(i, j) = P[i][j];
}

void ForceModel::forceModel(double t, Vec const& r, Vec& acc, Mat& partials) {
  Details& d = *details_;
  double const theta = (t - d.inertialFrameInfo.tRef) * kEarthRotationRate;
  double const ct = std::cos(theta), st = std::sin(theta);
  double const ri[3] = {r(0), r(1), r(2)};
  // Q = E Rz(theta), Rz the frame rotation about z; Earth-fixed position Q r.
  Mat3 const& E = d.eop;
  Mat3 Q;
  for (int i = 0; i < 3; ++i) {
    Q[i][0] = E[i][0] * ct - E[i][1] * st;
    Q[i][1] = E[i][0] * st + E[i][1] * ct;
    Q[i][2] = E[i][2];
  }
  double const rz[3] = {ct * ri[0] + st * ri[1], -st * ri[0] + ct * ri[1], ri[2]};
  double re[3];
  for (int i = 0; i < 3; ++i) re[i] = dot3(E[i], rz);

  if (t != d.sunMoonTime) {
    d.sunMoonGrid.at(t, d.moonJ2000, d.sunJ2000,
                     d.accurateSunMoon ? forces::sunMoonJ2000Accurate : forces::sunMoonJ2000);
    d.sunMoonTime = t;
  }
  double moon[3], sun[3];
  Mat3 const& mi = d.inertial;
  for (int i = 0; i < 3; ++i) {
    moon[i] = dot3(mi[i], d.moonJ2000);
    sun[i] = dot3(mi[i], d.sunJ2000);
  }

  bool const deriv = d.accDerivatives;
  forces::ThirdBody moonTerm, sunTerm;
  forces::sunMoonAttraction(moon, sun, ri, moonTerm, sunTerm);

  double aSrp[3], pSrp[3][8];
  forces::radiationPressure(ri, sun, d.assistanceData.srp[0], d.assistanceData.srp[1], aSrp, pSrp, deriv,
                            d.srpComputation);

  double g[3];
  Mat3 G;
  forces::gravity(re, d.numberOfGeopotentialCoefficients, g, deriv ? &G : nullptr);
  double ag[3];  // Q^T g
  for (int i = 0; i < 3; ++i) ag[i] = Q[0][i] * g[0] + Q[1][i] * g[1] + Q[2][i] * g[2];

  double a[3];
  for (int i = 0; i < 3; ++i) a[i] = ag[i] + moonTerm.acc[i] + sunTerm.acc[i] + aSrp[i];
  setVec(acc, a);
  if (!deriv) return;

  if (partials.size1() != 3 || partials.size2() != 8) partials.resize(3, 8, false);
  // Gravity: Q^T G Q.
  Mat3 GQ;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) GQ[i][j] = G[i][0] * Q[0][j] + G[i][1] * Q[1][j] + G[i][2] * Q[2][j];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      double v = Q[0][i] * GQ[0][j] + Q[1][i] * GQ[1][j] + Q[2][i] * GQ[2][j];
      v += moonTerm.gradient(i, j);
      v += sunTerm.gradient(i, j);
      partials(i, j) = v + pSrp[i][j];
    }
  for (int i = 0; i < 3; ++i) partials(i, 3) = partials(i, 4) = partials(i, 5) = 0.0;
  for (int c = 6; c < 8; ++c) {
    double v[3] = {pSrp[0][c], pSrp[1][c], pSrp[2][c]};
    if (!d.srpComputation) {
      // a_g = Rz^T E^T g(E Rz r): d/dp = Rz^T (dE^T g + E^T G dE rz).
      Mat3 const& dE = c == 6 ? d.eopDx : d.eopDy;
      double dre[3], u[3];
      for (int i = 0; i < 3; ++i) dre[i] = dot3(dE[i], rz);
      for (int i = 0; i < 3; ++i) {
        u[i] = 0.0;
        for (int k = 0; k < 3; ++k) u[i] += dE[k][i] * g[k] + E[k][i] * dot3(G[k], dre);
      }
      // Rz^T u
      double const w[3] = {ct * u[0] - st * u[1], st * u[0] + ct * u[1], u[2]};
      for (int i = 0; i < 3; ++i) v[i] += w[i];
    }
    for (int i = 0; i < 3; ++i) partials(i, c) = v[i];
  }
}

OdeFunRkf78::OdeFunRkf78(ForceModel& model) : model_(model), r_(3), a_(3), partials_(3, kParameters) {}
OdeFunRkf78::~OdeFunRkf78() = default;

void OdeFunRkf78::operator()(Vec const& x, Vec& dx, double t) {
  if (x.size() != kVariationalSize) ZARN_THROW(std::invalid_argument("OdeFunRkf78: invalid size x"));
  model_.setAccDerivatives(true);
  for (unsigned i = 0; i < 3; ++i) r_(i) = x(i);
  model_.forceModel(t, r_, a_, partials_);
  if (dx.size() != kVariationalSize) dx.resize(kVariationalSize, false);
  for (unsigned i = 0; i < 3; ++i) {
    dx(i) = x(3 + i);
    dx(3 + i) = a_(i);
  }
  dx(6) = dx(7) = 0.0;
  // A Phi with A = [0 I 0; P; 0]: rows 0-2 are Phi's velocity rows, rows 3-5 P Phi.
  double const* P = &partials_.data()[0];
  for (unsigned j = 0; j < kParameters; ++j) {
    double const* phi = &x.data()[kParameters + kParameters * j];
    double* out = &dx.data()[kParameters + kParameters * j];
    for (unsigned i = 0; i < 3; ++i) {
      out[i] = phi[3 + i];
      double s = 0.0;
      for (unsigned k = 0; k < kParameters; ++k) s += P[i * kParameters + k] * phi[k];
      out[3 + i] = s;
    }
    out[6] = out[7] = 0.0;
  }
}

OdeFunGj8::OdeFunGj8(ForceModel& model) : model_(model), partials_(3, kParameters) {}
OdeFunGj8::~OdeFunGj8() = default;

void OdeFunGj8::operator()(Vec const& y, Vec& ddy, double t) {
  if (y.size() != 3) ZARN_THROW(std::invalid_argument("OdeFunGj8: invalid size y"));
  model_.setAccDerivatives(false);
  model_.forceModel(t, y, ddy, partials_);
}

}  // namespace support
}  // namespace zarn
