// "CalibrationPolynomial": a plane correction from a measured grid of
// NbPointsX columns by NbPointsY rows. Through each row a host curve gives the target x
// from the source x, through each column one gives the target y from the source y; a
// point takes the two neighbouring columns and rows and blends their curves linearly.
// Revert is no inversion: it is the same lookup on a second set of curves fitted the
// other way round (target to source), so Revert(Convert(p)) is p only where both sets
// describe the map exactly.
//
// Pitfalls, all by contract:
//  - Outside the grid (left of the first column, below the first row) only the first
//    column's or row's curve is used, beyond the last only the last one's: no blending,
//    the curve itself extrapolates.
//  - Convert's lookup is strict on both sides, so a value exactly on an inner column or
//    row matches no interval and takes the LAST curve; Revert's lookup includes the upper
//    end, so there the interval ending at that line is used (fraction 1).
//  - Order picks the kind of every curve when the grid is built (Fit, Load): 1 or 2 a
//    "CurveSpline" of that order, any other number a "CurveLagrange". put_Order alone
//    rebuilds nothing.
//  - Only the folder-stream form exists: IDataPersist refuses XML (E_FAIL), and an ".xml"
//    file of this class holds an empty element.
#pragma once

#include <vector>

#include "frame/Object.h"
#include "persist/CalibrationInfoImpl.h"
#include "persist/FileArchiveImpl.h"
#include "persist/ParametricImpl.h"
#include "persist/PersistRoute.h"

class CCalibrationPolynomial : public CObject<CCalibrationPolynomial>,
                               public IObjectInfoImpl<CCalibrationPolynomial>,
                               public ICalibrationPolynomial,
                               public IFileArchiveImpl<CCalibrationPolynomial, IFileArchive>,
                               public ITransformFitErrors,
                               public IDataPersistRoute<CCalibrationPolynomial>,
                               public ICALIBRATIONInfoImpl<CCalibrationPolynomial, ICalibrationInfo>,
                               public IParametricImpl<CCalibrationPolynomial>,
                               public IUIPropertyPageSpecify {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  CCalibrationPolynomial();
  ~CCalibrationPolynomial();
  HRESULT QueryInterface(const IID& iid, void** object) override;

  // ICalibrationPolynomial (ICalibrationDistortion and ICalibration on the same route).
  // Convert: y from the column curves at the source y, then x from the row curves at the
  // source x; with no grid the row lookup fails and its E_FAIL is returned, x and y
  // unchanged. z is never touched. A curve that cannot evaluate (a spline of one sample)
  // leaves its coordinate as it was.
  HRESULT Convert(double* x, double* y, double* z) override;
  HRESULT Revert(double* x, double* y, double* z) override;
  // Point (i, j) of column i and row j is item j * nx + i of both collections; extra
  // items are ignored. Null collections, nx or ny not positive, nx * ny below 6, fewer
  // items than nx * ny, or an item among them that is no point: E_INVALIDARG, and the
  // previous model stays (its fit errors are 0 from then on).
  HRESULT Fit(ISimpleCollection* source, ISimpleCollection* target, int nbPointsX, int nbPointsY) override;
  HRESULT Reset() override;
  // A null place is ignored (S_OK).
  HRESULT get_Order(int* order) override;
  // Stored only: the curves change kind at the next Fit or Load.
  HRESULT put_Order(int order) override;

  // LowerError, UpperError, SDError (the first two both the largest distance).
  HRESULT GetFitErrors(double* lower, double* upper, double* sd) override;
  // "SDError", "MaxError".
  HRESULT GetParameters(INamedCollection** parameters, int) override;
  // Does nothing: the model is not set by hand.
  HRESULT SetParameters(INamedCollection* parameters) override;
  HRESULT GetPages(int, INamedCollection** pages, IUnknown**) override;

  // Folder streams only (else E_FAIL, also for null): "Order", "NbPointsX", "NbPointsY"
  // (4 bytes each), "CurveH<j>" and "CurveRevertH<j>" per row, "CurveV<i>" and
  // "CurveRevertV<i>" per column (numbers from 1), "XPos", "XPosRevert", "YPos",
  // "YPosRevert" (8 bytes a value), "Error" (UpperError), "SDError", sub-stream "Info".
  HRESULT PersistSave(IDataStream* stream, int flags);
  // Reads what PersistSave wrote into a grid built by Create with the stored Order. A
  // missing or unreadable item (grid size, curve, positions, errors), a negative size or
  // one above 65536 lines: E_FAIL, and the object keeps everything it had. LowerError is
  // not stored and stays as it was.
  HRESULT PersistLoad(IDataStream* stream, int flags);

  // Releases every curve, frees the arrays, both counts 0.
  void Clear();
  // Clear, then arrays for nx columns and ny rows and a new curve in each place (kind by
  // Order). Negative sizes: E_INVALIDARG after the Clear.
  HRESULT Create(int nbPointsX, int nbPointsY);
  // The interval of the column (rows false: XPos) or row (rows true: YPos) positions
  // around `value`, both bounds strict; below the first: 0, 0, fraction 0; otherwise not
  // inside: last, last, 0. No positions: E_FAIL.
  HRESULT GetClosestIndex(bool rows, double value, int* lower, int* upper, double* fraction);
  // The same on XPosRevert / YPosRevert with pos[i] < value <= pos[i + 1].
  HRESULT GetClosestIndexRevert(bool rows, double value, int* lower, int* upper, double* fraction);

 private:
  // The grid and its errors, set aside while a load might fail.
  struct Model;
  void SwapModel(Model* other);
  HRESULT Map(double* x, double* y, bool revert);

  int NbPointsX = 0;
  int NbPointsY = 0;
  std::vector<double> YPos;        // mean source y of each row
  std::vector<double> YPosRevert;  // mean target y of each row
  std::vector<ICurve*> CurveH;        // per row: target x from source x (owned references)
  std::vector<ICurve*> CurveRevertH;  // per row: source x from target x
  std::vector<double> XPos;        // mean source x of each column
  std::vector<double> XPosRevert;  // mean target x of each column
  std::vector<ICurve*> CurveV;        // per column: target y from source y
  std::vector<ICurve*> CurveRevertV;  // per column: source y from target y
  double UpperError = 0, LowerError = 0, SDError = 0;
  int Order = 5;
};
