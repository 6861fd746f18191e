// A chain of translate, scale and rotation steps, shared by "LinearTransform" (forward
// only) and "LinearCalibration" (forward and back). Angles are in degrees; roll turns
// about Z, pitch about X, yaw about Y, counter-clockwise seen from the positive axis
// looking toward the origin (right-handed).
#pragma once

#include <cmath>
#include <new>
#include <vector>

#include "frame/HostInterfaces.h"

namespace linear_chain {

struct Step {
  int kind;
  double a, b, c;
  double sine, cosine;  // rotation steps only
};

// Sine and cosine of an angle in degrees. Whole quarter turns are taken out exactly, so
// 90, 180 and 270 degrees give exact 0 and +-1 and a quarter turn maps integers to integers.
inline void SinCosDegrees(double degrees, double* sine, double* cosine) {
  if (!std::isfinite(degrees)) {
    *sine = *cosine = std::nan("");
    return;
  }
  const double reduced = std::fmod(degrees, 360.0);  // exact
  const double quarters = std::nearbyint(reduced / 90.0);  // -4 .. 4
  const double rest = (reduced - quarters * 90.0) * (M_PI / 180.0);
  const double s = std::sin(rest), c = std::cos(rest);
  switch (((static_cast<int>(quarters) % 4) + 4) % 4) {
    case 0: *sine = s; *cosine = c; break;
    case 1: *sine = c; *cosine = -s; break;
    case 2: *sine = -s; *cosine = -c; break;
    default: *sine = -c; *cosine = s; break;
  }
}

// Turns (u, v) by the angle: u' = u cos - v sin, v' = u sin + v cos.
inline void Turn(double* u, double* v, double sine, double cosine) {
  const double u0 = *u, v0 = *v;
  *u = u0 * cosine - v0 * sine;
  *v = u0 * sine + v0 * cosine;
}

class Chain {
 public:
  int Count() const { return static_cast<int>(m_Steps.size()); }
  void Clear() { m_Steps.clear(); }

  HRESULT Add(int kind, double a, double b, double c) {
    if (kind < STEP_TRANSLATE || kind > STEP_YAW) return E_INVALIDARG;
    Step step{kind, a, b, c, 0.0, 1.0};
    if (kind >= STEP_ROLL) SinCosDegrees(a, &step.sine, &step.cosine);
    try {
      m_Steps.push_back(step);
    } catch (const std::bad_alloc&) {
      return E_FAIL;
    }
    return S_OK;
  }

  // The steps in the order they were added.
  void Apply(double* x, double* y, double* z) const {
    for (const Step& step : m_Steps) {
      switch (step.kind) {
        case STEP_TRANSLATE: *x += step.a; *y += step.b; *z += step.c; break;
        case STEP_SCALE: *x *= step.a; *y *= step.b; *z *= step.c; break;
        case STEP_ROLL: Turn(x, y, step.sine, step.cosine); break;   // about Z: x toward y
        case STEP_PITCH: Turn(y, z, step.sine, step.cosine); break;  // about X: y toward z
        default: Turn(z, x, step.sine, step.cosine); break;          // yaw about Y: z toward x
      }
    }
  }

  // Each step undone, last first. A scale step with a zero factor has no inverse: false,
  // and the point is left as it was.
  bool Undo(double* x, double* y, double* z) const {
    for (const Step& step : m_Steps)
      if (step.kind == STEP_SCALE && (step.a == 0.0 || step.b == 0.0 || step.c == 0.0)) return false;
    for (auto it = m_Steps.rbegin(); it != m_Steps.rend(); ++it) {
      const Step& step = *it;
      switch (step.kind) {
        case STEP_TRANSLATE: *x -= step.a; *y -= step.b; *z -= step.c; break;
        case STEP_SCALE: *x /= step.a; *y /= step.b; *z /= step.c; break;
        case STEP_ROLL: Turn(x, y, -step.sine, step.cosine); break;
        case STEP_PITCH: Turn(y, z, -step.sine, step.cosine); break;
        default: Turn(z, x, -step.sine, step.cosine); break;
      }
    }
    return true;
  }

 private:
  std::vector<Step> m_Steps;
};

}  // namespace linear_chain
