// CalcPlane of the single-view geometry stands on no interface the module answers: it is
// tried on the class itself.
#include <gtest/gtest.h>

#include "geometry/SingleViewGeometry.h"

namespace {

TEST(SingleViewGeometryPlane, CalcPlaneSucceedsAndLeavesItsOutputsAlone) {
  CSingleViewGeometry geometry;
  ISimpleCollection* result = reinterpret_cast<ISimpleCollection*>(&geometry);
  IPlane* plane = reinterpret_cast<IPlane*>(&result);
  EXPECT_EQ(geometry.CalcPlane(nullptr, nullptr, nullptr, &result, &plane), S_OK);
  EXPECT_EQ(result, reinterpret_cast<ISimpleCollection*>(&geometry));
  EXPECT_EQ(plane, reinterpret_cast<IPlane*>(&result));
}

}  // namespace
