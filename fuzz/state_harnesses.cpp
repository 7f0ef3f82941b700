// Round-trip harnesses of the stateful classes' serialize()/deserialize().
// Each starts from a realistic primed state, so that "a refused input leaves
// the object unchanged" compares against something other than defaults.
//
// A new class with the same members needs one registration: a function that
// builds its primed state and ZARN_FUZZ_STATE(name, Class, primer).
#include <cmath>

#include "harness.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/numerical_integration.hpp"

namespace zarn {
namespace fuzz {
namespace {

constexpr double kGm = 3.986004418e14;    // m^3/s^2, WGS 84
constexpr double kTRef = 1157328000.0;    // 2016-09-08 00:00 GPS seconds
constexpr int kLeapSeconds = 17;          // s, GPS - UTC in 2016
constexpr double kStep = 300.0;           // s
constexpr unsigned int kPrimeSteps = 12;  // beyond the start-up

struct TwoBody : support::OdeFunction2 {
  void operator()(support::Vec const& y, support::Vec& ddy, double) override {
    double const r = norm_2(y);
    ddy = -kGm / (r * r * r) * y;
  }
};

// A GPS orbit (radius 26560 km, circular, inclined) integrated a few steps.
void primeIntegrator(support::Gj8Integrator& integrator) {
  constexpr double kRadius = 26560e3;  // m
  double const speed = std::sqrt(kGm / kRadius);
  support::Vec r(3, 0.0);
  support::Vec v(3, 0.0);
  r(0) = kRadius;
  v(1) = speed * 0.5;
  v(2) = speed * 0.866;
  TwoBody f;
  ZARN_FUZZ_CHECK(integrator.gj8Init(f, r, v, kTRef, kStep) == 0);
  support::Mat R(3, 1);
  support::Mat V(3, 1);
  ZARN_FUZZ_CHECK(integrator.gj8Propagate(f, R, V, kPrimeSteps) == kPrimeSteps);
}

BinaryData primedIntegrator() {
  support::Gj8Integrator integrator;
  primeIntegrator(integrator);
  return encodeState(integrator);
}

BinaryData primedForceModel() {
  support::ForceModel model;
  model.setAssistanceData(support::AssistanceDataFile::defaultAssistance(core::GPS, 5));
  model.setLeapInfo({support::LeapInfo{1025136017, 17}, support::LeapInfo{1167264018, 18}});
  constexpr double kArcsecond = 4.84813681109536e-6;  // rad
  model.setEopInfo(support::makeEopInfo(support::Eop{0.12 * kArcsecond, 0.35 * kArcsecond}));
  model.setInertialFrameInfo(support::makeInertialFrameInfo(kTRef, -0.3, kLeapSeconds));
  model.setNumberOfGeopotentialCoefficients(12);
  primeIntegrator(model.getGj8Integrator());
  return encodeState(model);
}

#define ZARN_FUZZ_STATE(name, T, primer)           \
  ZARN_FUZZ_HARNESS(                               \
      "state_" name,                               \
      [](std::uint8_t const* d, std::size_t n) {   \
        static BinaryData const primed = primer(); \
        stateRoundTrip<T>(primed, d, n);           \
      },                                           \
      []() { return std::vector<std::string>{asString(primer())}; })

ZARN_FUZZ_STATE("gj8_integrator", support::Gj8Integrator, primedIntegrator);
ZARN_FUZZ_STATE("force_model", support::ForceModel, primedForceModel);

}  // namespace
}  // namespace fuzz
}  // namespace zarn
