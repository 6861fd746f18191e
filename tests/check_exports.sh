#!/usr/bin/env bash
# Fails when Zeltrim.so defines a dynamic symbol other than its entry points and the
# minimiser evaluators.
set -euo pipefail
lib=$1
symbols=$(nm -D --defined-only "$lib" | awk '{print $NF}')
bad=$(printf '%s\n' "$symbols" | grep -v -E '^(CreateFunction|InitializeModule|[A-Za-z0-9]+_LevenbergMarquardt_Evaluate|CalibrationDistortionRadial_LevenbergMarquardt_Evaluate(k1k2|Aspect|Center))$' || true)
for required in CreateFunction InitializeModule CCamera3DTransform_LevenbergMarquardt_Evaluate \
    CCamera3DTrinsic_LevenbergMarquardt_Evaluate CCamera3DCalibrationPlane_LevenbergMarquardt_Evaluate \
    CalibrationDistortionRadial_LevenbergMarquardt_Evaluatek1k2 CalibrationDistortionRadial_LevenbergMarquardt_EvaluateAspect \
    CalibrationDistortionRadial_LevenbergMarquardt_EvaluateCenter CMultiViewGeometry_LevenbergMarquardt_Evaluate; do
  printf '%s\n' "$symbols" | grep -qx "$required" || { echo "missing export: $required"; exit 1; }
done
if [ -n "$bad" ]; then
  echo "unexpected exports:"; printf '%s\n' "$bad"; exit 1
fi
echo "exports ok: $(printf '%s\n' "$symbols" | tr '\n' ' ')"
