// Residuals of a transform between two point sets: converted source minus target, in
// target space, over the shorter set.
#include "tests/module/PropertySuite.h"

namespace {

const std::vector<P> kTwo = {{1, 2, 3}, {4, 5, 6}};

const property::ClassTraits kResidualErrors{
    .name = L"TransformResidualErrors",
    .routes = {{&IID_IObjectInfo}, {&IID_ITransformResidualErrors}},
    .fit = [](IUnknown* o, ISimpleCollection* s, ISimpleCollection* t) {
      SmartPtr<IDblVector> lengths;
      return QueryAs<ITransformResidualErrors>(o)->GetResidualErrorVector(nullptr, s, t, lengths.Out());
    },
    .badFits = {{"a null source", nullptr, &kTwo, E_INVALIDARG}, {"a null target", &kTwo, nullptr, E_INVALIDARG}},
};
ZELTRIM_PROPERTY_CLASS(kResidualErrors);

SmartPtr<ITransformResidualErrors> NewResiduals() {
  return LoadedModule::Get().Create<ITransformResidualErrors>(L"TransformResidualErrors");
}

TEST(TransformResidualErrors, NullTransformGivesSourceMinusTargetOverTheShorterSet) {
  SmartPtr<ISimpleCollection> source = Points({{3, 4, 0}, {1, 1, 1}, {9, 9, 9}}), target = Points({{0, 0, 0}, {1, 1, 3}});
  SmartPtr<ISimpleCollection> differences;
  ASSERT_EQ(NewResiduals()->GetResidualErrorPoints(nullptr, source, target, differences.Out()), S_OK);
  ASSERT_EQ(Count(differences), 2);
  ExpectNear(PointAt(differences, 0), {3, 4, 0}, 0.0);
  ExpectNear(PointAt(differences, 1), {0, 0, -2}, 0.0);
  SmartPtr<IDblVector> lengths;
  ASSERT_EQ(NewResiduals()->GetResidualErrorVector(nullptr, source, target, lengths.Out()), S_OK);
  EXPECT_EQ(Values(lengths), (std::vector<double>{5.0, 2.0}));
}

TEST(TransformResidualErrors, SourceIsConvertedBeforeTheTargetIsSubtracted) {
  // A translation by (10, 0, 0): (1, 2, 3) goes to (11, 2, 3); the target is (12, 2, 3).
  SmartPtr<IHomogeneousTransform> move = LoadedModule::Get().CreateHost<IHomogeneousTransform>(L"HomogeneousTransform");
  double* m = nullptr;
  move->GetMatrix(&m, nullptr, nullptr);
  m[12] = 10;
  SmartPtr<ISimpleCollection> differences;
  ASSERT_EQ(NewResiduals()->GetResidualErrorPoints(move, Points({{1, 2, 3}}), Points({{12, 2, 3}}), differences.Out()),
            S_OK);
  EXPECT_EQ(PointAt(differences, 0).x, -1.0);
}

TEST(TransformResidualErrors, EmptySetsGiveEmptyResults) {
  SmartPtr<IDblVector> lengths;
  ASSERT_EQ(NewResiduals()->GetResidualErrorVector(nullptr, Points(std::vector<P>{}), Points(kTwo), lengths.Out()), S_OK);
  EXPECT_EQ(Count(lengths), 0);
}

}  // namespace
