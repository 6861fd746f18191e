// "LinearTransform": a chain of translate, scale and rotation steps applied in the order
// they were added. Angles are in degrees; roll turns about Z, pitch about X, yaw about Y,
// counter-clockwise seen from the positive axis looking toward the origin (right-handed).
#include <cmath>
#include <new>
#include <vector>

#include "host/common/PeerModule.h"

namespace {

struct Step {
  int kind;
  double a, b, c;
  double sine, cosine;  // rotation steps only
};

// Sine and cosine of an angle in degrees. Whole quarter turns are taken out exactly, so
// 90, 180 and 270 degrees give exact 0 and +-1 and a quarter turn maps integers to integers.
void SinCosDegrees(double degrees, double* sine, double* cosine) {
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

}  // namespace

class CLinearTransform : public CObject<CLinearTransform>,
                         public ILinearTransform,
                         public IObjectInfoImpl<CLinearTransform> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CLinearTransform>*>(this)), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object) ||
        QueryRoute(iid, IID_ILinearTransform, static_cast<ILinearTransform*>(this), object) ||
        QueryRoute(iid, IID_ITransform, static_cast<ITransform*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  HRESULT Convert(double* x, double* y, double* z) override {
    if (!x || !y || !z) return E_POINTER;
    double px = *x, py = *y, pz = *z;
    for (const Step& step : m_Steps) {
      switch (step.kind) {
        case STEP_TRANSLATE: px += step.a; py += step.b; pz += step.c; break;
        case STEP_SCALE: px *= step.a; py *= step.b; pz *= step.c; break;
        case STEP_ROLL: Turn(&px, &py, step.sine, step.cosine); break;   // about Z: x toward y
        case STEP_PITCH: Turn(&py, &pz, step.sine, step.cosine); break;  // about X: y toward z
        default: Turn(&pz, &px, step.sine, step.cosine); break;          // yaw about Y: z toward x
      }
    }
    *x = px;
    *y = py;
    *z = pz;
    return S_OK;
  }

  HRESULT get_StepCount(int* count) override {
    if (!count) return E_POINTER;
    *count = static_cast<int>(m_Steps.size());
    return S_OK;
  }

  HRESULT Reset() override {
    m_Steps.clear();
    return S_OK;
  }

  // `last` marks the end of a chain for the caller's bookkeeping; the chain itself is
  // whatever has been added since the last Reset.
  HRESULT AddStep(int kind, int, double a, double b, double c) override {
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

 private:
  std::vector<Step> m_Steps;
};

ZELTRIM_PEER_OBJECT(L"LinearTransform", CLinearTransform);

const tagREFString CLinearTransform::m_ObjectName = {15, L"LinearTransform"};
