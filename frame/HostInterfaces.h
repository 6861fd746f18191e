// Interfaces of the framework's peer modules, as far as the module calls them.
//
// The slot order is the binary contract. Where the module does not call an operation,
// its slot still exists; the reference host fills those slots with operations of its own
// (named here) or with reserved slots that answer E_NOTIMPL.
#pragma once

#include <cwchar>

#include "frame/Unknown.h"

struct IString;
struct IDataStream;
struct INamedCollection;
struct IPointsCollection;
struct IDblVector;
struct IHomogeneousTransform;

// ---------------------------------------------------------------- strings, variants

ZELTRIM_INTERFACE(IString, IUnknown)
  // Borrowed pointer to the terminated text, valid until the string changes or dies.
  virtual HRESULT GetString(const wchar_t** text, int* length) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICreatableString, IString)
  virtual HRESULT SetString(int length, const wchar_t* text) = 0;
  virtual HRESULT Append(int length, const wchar_t* text) = 0;
ZELTRIM_INTERFACE_END

// Field numbers of a component descriptor.
enum ComponentField { COMPONENT_OBJECT = 1, COMPONENT_MODULE = 4 };

ZELTRIM_INTERFACE(IComponentString, IUnknown)
  virtual HRESULT SetFromObject(IUnknown* object) = 0;
  virtual HRESULT get_Field(int field, IString** out) = 0;
  virtual HRESULT CreateInstance(const IID& iid, void** object) = 0;
  virtual HRESULT put_Field(int field, int length, const wchar_t* text) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IComponentCollection, IUnknown)
  virtual HRESULT get_Count(int* count) = 0;
  virtual HRESULT get_Item(int index, IUnknown** component) = 0;
  virtual HRESULT get_Index(IString* name, int* index) = 0;
  // Ten slots the module does not call; the host's own operations.
  virtual HRESULT Register(int objectLength, const wchar_t* object, int moduleLength,
                           const wchar_t* module) = 0;
  virtual HRESULT Unregister(int objectLength, const wchar_t* object) = 0;
  virtual HRESULT get_ModuleOf(int objectLength, const wchar_t* object, IString** module) = 0;
  // Offers a live object under a name (a null object withdraws it): CreateComponent with
  // an identifier then answers the object's QueryInterface, so every caller shares the
  // one instance. How a host supplies optional services such as "EventLogGlobal".
  virtual HRESULT RegisterInstance(int objectLength, const wchar_t* object, IUnknown* instance) = 0;
  virtual HRESULT Reserved_ICC4() = 0;
  virtual HRESULT Reserved_ICC5() = 0;
  virtual HRESULT Reserved_ICC6() = 0;
  virtual HRESULT Reserved_ICC7() = 0;
  virtual HRESULT Reserved_ICC8() = 0;
  virtual HRESULT Reserved_ICC9() = 0;
  // iid null: *out receives the component (an IComponentString); else a new object.
  virtual HRESULT CreateComponent(int length, const wchar_t* name, const IID* iid, void** out) = 0;
ZELTRIM_INTERFACE_END

// Variant types reported by get_Type.
enum VariantType { VARIANT_OBJECT = 0, VARIANT_INTEGER = 1, VARIANT_DOUBLE = 2 };

ZELTRIM_INTERFACE(IVariant, IUnknown)
  virtual short get_Type() = 0;
  virtual double get_Double() = 0;
  virtual int get_Integer() = 0;
  virtual HRESULT put_Integer(int value) = 0;
  virtual HRESULT put_Double(double value) = 0;
  virtual short IsObject() = 0;
  virtual HRESULT get_Object(IUnknown** object) = 0;
  virtual HRESULT put_Object(IUnknown* object) = 0;
  virtual short IsString() = 0;
  virtual HRESULT get_String(IString** text) = 0;
  virtual HRESULT put_String(IString* text) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IInputParameter, IUnknown)
  virtual HRESULT get_Value(IUnknown** value) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- streams
//
// Every stream interface extends IDataStream. IXMLStream's Attach is Open's slot and
// ICSVStream's Setup is Open's slot as well.

// Seek origins.
enum StreamOrigin { STREAM_BEGIN = 0, STREAM_CURRENT = 1, STREAM_END = 2 };

ZELTRIM_INTERFACE(IDataStream, IUnknown)
  // (null, n, 1): empty growing stream for writing; (buffer, size, 0): read over a block.
  virtual HRESULT Open(void* buffer, unsigned long size, int writable) = 0;
  // Host operation: reads up to `bytes` at the position; *read gets the count.
  virtual HRESULT Read(void* data, int bytes, int* read) = 0;
  virtual HRESULT Seek(long bytes, int origin, int) = 0;
  virtual HRESULT GetBuffer(void** data, unsigned long* size) = 0;
  // Host operation: the read/write position in bytes.
  virtual HRESULT GetPosition(unsigned long* position) = 0;
  virtual HRESULT Write(const void* data, int bytes, int) = 0;
  // The XML stream's name for the Open slot.
  HRESULT Attach(void* text, unsigned long bytes, int flags) { return Open(text, bytes, flags); }
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IXMLStream, IDataStream)
  // Host operation: the depth of open elements.
  virtual HRESULT get_Depth(int* depth) = 0;
  virtual HRESULT OpenTag(IString* name, int, int) = 0;
  // Opens an element named after the object's IObjectInfo::GetName.
  virtual HRESULT BeginObject(IUnknown* object, int, int) = 0;
  virtual HRESULT WriteValue(IString* name, int, IString* value, int) = 0;
  virtual HRESULT CloseTag() = 0;
  // Next element at this level; the tag is a view into the stream's text. Negative at the end.
  virtual HRESULT NextTag(tagREFString* name) = 0;
  virtual HRESULT ReadElement(int length, const wchar_t* tag, tagREFString* name, IUnknown** content, int) = 0;
  virtual HRESULT ReadObject(IUnknown** object) = 0;
  virtual HRESULT ReadNamedObject(int length, const wchar_t* tag, IUnknown** object) = 0;
  // Five host operations the module does not call.
  virtual HRESULT ReadValue(int length, const wchar_t* tag, IString** value) = 0;
  virtual HRESULT get_Text(IString** text) = 0;
  virtual HRESULT Reserved_IXS2() = 0;
  virtual HRESULT Reserved_IXS3() = 0;
  virtual HRESULT Reserved_IXS4() = 0;
  virtual HRESULT SetOptions(int mask, int options) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IXMLStreamEx, IXMLStream)
ZELTRIM_INTERFACE_END

// Typed values of IFolderStream::WriteValue / ReadValue.
enum FolderValueType { FOLDER_INT32 = 3, FOLDER_DOUBLE = 5 };

ZELTRIM_INTERFACE(IFolderStream, IDataStream)
  virtual HRESULT CreateSubStream(IString* name, int, IDataStream** out) = 0;
  // Host operation: removes a named entry.
  virtual HRESULT RemoveEntry(IString* name) = 0;
  virtual HRESULT WriteData(IString* name, const void* data, int size, int) = 0;
  virtual HRESULT WriteString(IString* name, IString* value) = 0;
  virtual HRESULT WriteObject(IString* name, IUnknown* object, int) = 0;
  virtual HRESULT WriteValue(IString* name, void* value, int type) = 0;
  // Host operation: the type and size of a named entry.
  virtual HRESULT GetEntryInfo(IString* name, int* type, int* size) = 0;
  virtual HRESULT ReadData(IString* name, void* data, int size, int) = 0;
  // Fills an existing string (or variant) object.
  virtual HRESULT ReadString(IString* name, IString* out) = 0;
  virtual HRESULT OpenSubStream(IString* name, int, IDataStream** out) = 0;
  // *out holding an object: loads into it through IDataPersist; null: makes one.
  virtual HRESULT ReadObject(IString* name, void** out, int) = 0;
  virtual HRESULT ReadValue(IString* name, void* value, int type) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICSVStream, IDataStream)
  HRESULT Setup(void* buffer, int size, int writable) {
    return Open(buffer, static_cast<unsigned long>(size), writable);
  }
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IStreamTransform, IUnknown)
  virtual HRESULT Transform(IDataStream* source, IDataStream* target, int) = 0;
ZELTRIM_INTERFACE_END

// Only handed to WriteObject / ReadObject; what it holds is the host's.
ZELTRIM_INTERFACE(IFileInfo, IUnknown)
  virtual HRESULT get_Description(IString** text) = 0;
  virtual HRESULT put_Description(IString* text) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- registry

ZELTRIM_INTERFACE(IRegistry, IUnknown)
  virtual HRESULT Open(IString* file) = 0;
  virtual HRESULT Save() = 0;
  virtual HRESULT GetValue(IString* section, IString* key, IString** value) = 0;
  virtual HRESULT SetValue(IString* section, IString* key, IString* value) = 0;
  virtual HRESULT RemoveValue(IString* section, IString* key) = 0;
  virtual HRESULT get_Filename(IString** file) = 0;
  virtual HRESULT Reserved_IR3() = 0;
  virtual HRESULT GetSection(IString* section, INamedCollection** items) = 0;
ZELTRIM_INTERFACE_END

// Length of the buffer that IRegistryEx::GetValue fills, terminator included.
constexpr int REGISTRY_VALUE_CHARS = 178;

ZELTRIM_INTERFACE(IRegistryEx, IUnknown)
  virtual HRESULT Reserved_IRX0() = 0;
  virtual HRESULT Reserved_IRX1() = 0;
  virtual HRESULT GetValue(const wchar_t* section, const wchar_t* key, wchar_t* buffer) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- collections

ZELTRIM_INTERFACE(ISimpleCollection, IUnknown)
  virtual HRESULT get_Count(int* count) = 0;
  virtual HRESULT get_Item(int index, IUnknown** item) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICreatableSimpleCollection, ISimpleCollection)
  virtual HRESULT Add(IUnknown* item) = 0;
  virtual HRESULT Clear() = 0;
  virtual HRESULT put_Item(int index, IUnknown* item) = 0;
  virtual HRESULT Remove(int index) = 0;
ZELTRIM_INTERFACE_END

// The named-collection family: one operation order, each interface a prefix of the next.
ZELTRIM_INTERFACE(INamedCollection, ISimpleCollection)
  // key: a string, a variant holding a number (the index itself) or a string, or an object.
  virtual HRESULT get_Index(IUnknown* key, int* index) = 0;
  virtual HRESULT get_ItemName(int index, IString** name) = 0;
  virtual HRESULT Rename(int index, IString* name) = 0;
  virtual HRESULT CollectionLock() = 0;
  virtual HRESULT CollectionUnlock() = 0;
  virtual int IsCollectionLocked() = 0;
ZELTRIM_INTERFACE_END

struct PARAMETEROBJECT;

ZELTRIM_INTERFACE(IParameters, INamedCollection)
  virtual HRESULT Iterate(int index, IString** name, IVariant** value, IUnknown** descriptor, int* flags) = 0;
  virtual HRESULT get_ItemVariant(int index, IVariant** value) = 0;
  virtual HRESULT put_Item(int index, IUnknown* item) = 0;
  virtual HRESULT get_ItemDescriptor(int index, IUnknown** descriptor) = 0;
  virtual HRESULT put_ItemDescriptor(int index, IUnknown* descriptor) = 0;
  virtual HRESULT get_ItemFlags(int index, int* flags) = 0;
  virtual HRESULT put_ItemFlags(int index, int flags) = 0;
  // Returns the index found, or -1; not an HRESULT.
  virtual int Get(IUnknown* key, IUnknown** value, IUnknown** descriptor, int* flags, int options) = 0;
  virtual HRESULT Add(IString* name, IUnknown* item, IUnknown* descriptor, int flags) = 0;
  virtual HRESULT Remove(int index) = 0;
  virtual HRESULT RemoveAll() = 0;
  virtual HRESULT Copy(IParameters* source) = 0;
  virtual HRESULT Sort(int options) = 0;
  virtual HRESULT Set(IUnknown* key, IUnknown* item, IUnknown* descriptor, int flags, short options) = 0;
  virtual HRESULT AddNOLOCK(IString* name, IUnknown* item, IUnknown* descriptor, int flags) = 0;
  virtual HRESULT get_ItemNOLOCK(int index, IUnknown** item) = 0;
  virtual HRESULT put_ItemNOLOCK(int index, IUnknown* item) = 0;
  virtual HRESULT get_ItemNameNOLOCK(int index, IString** name) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IParametersCreatable, IParameters)
  virtual HRESULT Params_SaveCSV(IDataStream* stream, int options) = 0;
  virtual HRESULT Params_SaveXML(IDataStream* stream, int options) = 0;
  virtual HRESULT Params_LoadXML(IDataStream* stream, int options, int) = 0;
  virtual HRESULT Params_SaveFolderStream(IDataStream* stream, int options) = 0;
  virtual HRESULT Params_LoadFolderStream(IDataStream* stream, int options) = 0;
  virtual HRESULT Params_SaveXMLUnk(IDataStream* stream, int options) = 0;
  virtual HRESULT Params_LoadXMLUnk(IDataStream* stream, int options) = 0;
  virtual HRESULT getParameter(PARAMETEROBJECT* item, IUnknown** value) = 0;
ZELTRIM_INTERFACE_END

// Collections of collections (page lists and the like): IParametersCreatable's order.
// A page entry is Add(title, page component name, named object or null, flags).
ZELTRIM_INTERFACE(ISuperCollection, IParametersCreatable)
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- geometry

ZELTRIM_INTERFACE(IPoint, IUnknown)
  virtual HRESULT GetXYZ(double* x, double* y, double* z) = 0;
  virtual HRESULT SetXYZ(double x, double y, double z) = 0;
ZELTRIM_INTERFACE_END

// A simple collection of IPoint items; existing points can be added (shared).
ZELTRIM_INTERFACE(IPointsCollection, ISimpleCollection)
  virtual HRESULT Add(IUnknown* point) = 0;
  virtual HRESULT Clear() = 0;
  virtual HRESULT AddPoint(double x, double y, double z) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IPointVector, IUnknown)
  virtual HRESULT get_Origin(double* x, double* y, double* z) = 0;
  virtual HRESULT put_Origin(double x, double y, double z) = 0;
  virtual HRESULT PointAt(double* x, double* y, double* z, double t) = 0;
  virtual HRESULT put_Direction(double x, double y, double z) = 0;
  virtual HRESULT get_Direction(double* x, double* y, double* z, double t) = 0;
ZELTRIM_INTERFACE_END

// The plane a X + b Y + c Z + d = 0.
ZELTRIM_INTERFACE(IPlane, IUnknown)
  virtual HRESULT GetCoefficients(double* a, double* b, double* c, double* d) = 0;
  virtual HRESULT SetCoefficients(double a, double b, double c, double d) = 0;
ZELTRIM_INTERFACE_END

// A line segment between two points; fitted through IGeometricFitting.
ZELTRIM_INTERFACE(ILineSegment, IUnknown)
  virtual HRESULT GetEnds(double* x0, double* y0, double* z0, double* x1, double* y1, double* z1) = 0;
  virtual HRESULT SetEnds(double x0, double y0, double z0, double x1, double y1, double z1) = 0;
ZELTRIM_INTERFACE_END

// Resize(n) makes room without changing the count; put_Value(-1, v) appends.
ZELTRIM_INTERFACE(IDblVector, IUnknown)
  virtual HRESULT get_Count(int* count) = 0;
  virtual HRESULT Resize(int size) = 0;
  virtual HRESULT get_Item(int index, double* value) = 0;
  virtual HRESULT put_Value(int index, double value) = 0;
ZELTRIM_INTERFACE_END

// Row-major matrix of doubles (borrowed pointer into the object).
ZELTRIM_INTERFACE(IMatrix, IUnknown)
  virtual HRESULT GetMatrix(double** data, int* rows, int* columns) = 0;
  virtual HRESULT SetSize(int rows, int columns) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICurve, IUnknown)
  virtual HRESULT Evaluate(double x, double* y) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ICurveSpline, IUnknown)
  virtual HRESULT Evaluate(double x, double* y) = 0;
  virtual HRESULT get_Order(int* order) = 0;
  virtual HRESULT Reserved_ICS2() = 0;
  virtual HRESULT Reserved_ICS3() = 0;
  virtual HRESULT put_Order(int order) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IPolynomial, IUnknown)
  virtual HRESULT Fit(IPointsCollection* points) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IGeometricFitting, IUnknown)
  virtual HRESULT Reserved_IGF0() = 0;
  virtual HRESULT Reserved_IGF1() = 0;
  virtual HRESULT Fit(IPointsCollection* points) = 0;
  // Signed distance of each point from the fitted shape.
  virtual HRESULT GetResiduals(IPointsCollection* points, IDblVector** residuals) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(ITransformableObject, IUnknown)
  virtual HRESULT Transform(IHomogeneousTransform* transform) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IActivatableObject, IUnknown)
  virtual HRESULT Activate(int active) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- transforms

ZELTRIM_INTERFACE(ITransform, IUnknown)
  virtual HRESULT Convert(double* x, double* y, double* z) = 0;
ZELTRIM_INTERFACE_END

// Step kinds of a linear chain.
enum LinearStep { STEP_TRANSLATE = 1, STEP_SCALE = 2, STEP_ROLL = 3, STEP_PITCH = 4, STEP_YAW = 5 };

ZELTRIM_INTERFACE(ILinearTransform, ITransform)
  // Host operation: the number of steps in the chain.
  virtual HRESULT get_StepCount(int* count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT AddStep(int kind, int last, double a, double b, double c) = 0;
ZELTRIM_INTERFACE_END

// A hand-set chain of linear steps that converts both ways.
ZELTRIM_INTERFACE(ILinearCalibration, IUnknown)
  virtual HRESULT Convert(double* x, double* y, double* z) = 0;
  virtual HRESULT Revert(double* x, double* y, double* z) = 0;
  virtual HRESULT get_StepCount(int* count) = 0;
  virtual HRESULT Reset() = 0;
  virtual HRESULT Reserved_ILC4() = 0;
  virtual HRESULT AddStep(int kind, int last, double a, double b, double c) = 0;
ZELTRIM_INTERFACE_END

// ---------------------------------------------------------------- user interface

// The host's canvas; its definition is the host's (host/ui/canvas/Canvas.h). The module
// only passes the pointer along.
struct UbuntuCanvas;
struct CANVASRect {
  int x, y, width, height;
};
typedef CANVASRect CCANVASRect;

// A grid of cell objects addressed (column, row, layer).
ZELTRIM_INTERFACE(IUIGrid, IUnknown)
  virtual HRESULT get_Cell(int column, int row, int layer, IUnknown** item) = 0;
  virtual HRESULT put_Cell(int column, int row, int layer, IUnknown* item) = 0;
  virtual HRESULT get_Size(int* columns, int* rows) = 0;
  virtual HRESULT Clear() = 0;
  virtual HRESULT get_RowHeight(int, int* height) = 0;
  virtual HRESULT put_RowHeight(int, int height) = 0;
  virtual HRESULT get_Option(int code, int* value) = 0;
  // Host operation: the number of layers.
  virtual HRESULT get_LayerCount(int* layers) = 0;
  virtual HRESULT put_Option(int code, int value) = 0;
  // Host operation: where a cell lies when the grid is rendered into `grid`.
  virtual HRESULT get_CellRect(const CANVASRect* grid, int column, int row, CANVASRect* cell) = 0;
  virtual HRESULT put_Size(int columns, int rows, int layers) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUIPropertyPageCollection, IUnknown)
  // Host operations: the page that was last initialised with this collection as its host
  // (a page the frame shows and routes edits to). put_ keeps a reference; null forgets.
  virtual HRESULT put_ShownPage(IUnknown* page) = 0;
  virtual HRESULT get_ShownPage(IUnknown** page) = 0;
  virtual HRESULT Reserved_IUPC2() = 0;
  virtual HRESULT Reserved_IUPC3() = 0;
  virtual HRESULT Reserved_IUPC4() = 0;
  virtual HRESULT Reserved_IUPC5() = 0;
  virtual HRESULT Reserved_IUPC6() = 0;
  virtual HRESULT Reserved_IUPC7() = 0;
  virtual HRESULT Reserved_IUPC8() = 0;
  // Code 6: the default parameter editor and the line height.
  virtual HRESULT GetInfo(int code, IUnknown** out, int* value) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUILineDisplayable, IUnknown)
  virtual HRESULT AddLine(IString* source, IString* text, int flags) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IPMText, IUnknown)
  virtual HRESULT GetText(IString** text) = 0;
  virtual HRESULT SetText(int length, const wchar_t* text) = 0;
ZELTRIM_INTERFACE_END

#define ZELTRIM_RESERVED_SLOT(n) virtual HRESULT Reserved_IPMRS##n() = 0;
// A text style. The first six slots are the host's: font size in pixels, colour as
// 0xRRGGBB, bold (0 or 1); the other 28 before CopyStyle answer E_NOTIMPL.
ZELTRIM_INTERFACE(IPMRenderStyle, IUnknown)
  virtual HRESULT get_FontSize(int* pixels) = 0;
  virtual HRESULT put_FontSize(int pixels) = 0;
  virtual HRESULT get_Colour(unsigned int* rgb) = 0;
  virtual HRESULT put_Colour(unsigned int rgb) = 0;
  virtual HRESULT get_Bold(int* bold) = 0;
  virtual HRESULT put_Bold(int bold) = 0;
  ZELTRIM_RESERVED_SLOT(6) ZELTRIM_RESERVED_SLOT(7)
  ZELTRIM_RESERVED_SLOT(8) ZELTRIM_RESERVED_SLOT(9) ZELTRIM_RESERVED_SLOT(10) ZELTRIM_RESERVED_SLOT(11)
  ZELTRIM_RESERVED_SLOT(12) ZELTRIM_RESERVED_SLOT(13) ZELTRIM_RESERVED_SLOT(14) ZELTRIM_RESERVED_SLOT(15)
  ZELTRIM_RESERVED_SLOT(16) ZELTRIM_RESERVED_SLOT(17) ZELTRIM_RESERVED_SLOT(18) ZELTRIM_RESERVED_SLOT(19)
  ZELTRIM_RESERVED_SLOT(20) ZELTRIM_RESERVED_SLOT(21) ZELTRIM_RESERVED_SLOT(22) ZELTRIM_RESERVED_SLOT(23)
  ZELTRIM_RESERVED_SLOT(24) ZELTRIM_RESERVED_SLOT(25) ZELTRIM_RESERVED_SLOT(26) ZELTRIM_RESERVED_SLOT(27)
  ZELTRIM_RESERVED_SLOT(28) ZELTRIM_RESERVED_SLOT(29) ZELTRIM_RESERVED_SLOT(30) ZELTRIM_RESERVED_SLOT(31)
  ZELTRIM_RESERVED_SLOT(32) ZELTRIM_RESERVED_SLOT(33)
  virtual HRESULT CopyStyle(IUnknown* style) = 0;
ZELTRIM_INTERFACE_END
#undef ZELTRIM_RESERVED_SLOT

// The parameter editor; GetObject(4) gives its text style.
ZELTRIM_INTERFACE(IUIParamEdit, IUnknown)
  virtual HRESULT GetObject(int code, IUnknown** object) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(_IUIRefreshEvent, IUnknown)
  virtual HRESULT Refresh(int, int) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IRenderableObject, IUnknown)
  virtual HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUIMouseInput, IUnknown)
  virtual HRESULT Pointer(int x, int y, int buttons, int flags) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUIKeyboardInput, IUnknown)
  virtual HRESULT KeyPressed(int key, int flags) = 0;
  virtual HRESULT SetFocus(int focus) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IUIPropertyPage, IUnknown)
  virtual HRESULT Initialize(ISimpleCollection* objects, IUnknown* a, int b, IUnknown* host) = 0;
  virtual HRESULT Apply(IUnknown* context) = 0;
  virtual HRESULT Close() = 0;
  virtual int GetState() = 0;
  virtual HRESULT GetHelp(IString** text) = 0;
  virtual HRESULT Cancel() = 0;
  virtual HRESULT GetTitle(IString** text) = 0;
ZELTRIM_INTERFACE_END

// Refusal of a change to a read-only entry.
constexpr HRESULT E_ACCESSDENIED = static_cast<HRESULT>(0x80070005u);

// Host interface of "UIParametersSlidePropPage": the entries of the list it shows, by name
// (compared as the list's get_Index compares). Lengths are in characters.
ZELTRIM_INTERFACE(IUIParametersSlideEdit, IUnknown)
  // The entry's value as text; E_FAIL for an unknown name or a page without a list.
  virtual HRESULT GetValue(int nameLength, const wchar_t* name, IString** value) = 0;
  // Stores the text as the entry's value and sets bit 0 of the page state. A read-only
  // entry (flag 0x40000) gives E_ACCESSDENIED, an unknown name E_FAIL; nothing changes.
  virtual HRESULT SetValue(int nameLength, const wchar_t* name, int textLength, const wchar_t* text) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(_IUIParamEditNotification, IUnknown)
  virtual HRESULT ParamChanged(IUnknown* item) = 0;
  virtual HRESULT ParamSelected(IUnknown* item) = 0;
ZELTRIM_INTERFACE_END

ZELTRIM_INTERFACE(IEventSource, IUnknown)
  virtual HRESULT Advise(IUnknown* listener, int kind) = 0;
  virtual int GetAdviseCount() = 0;
  virtual HRESULT GetAdviseItem(unsigned int index, IUnknown** listener) = 0;
  virtual HRESULT Advise(IUnknown* listener, int kind, const IID& iid) = 0;
  virtual HRESULT ClearAdvise(IUnknown* listener) = 0;
  virtual HRESULT AddAdvise(IUnknown* listener, int kind) = 0;
ZELTRIM_INTERFACE_END
