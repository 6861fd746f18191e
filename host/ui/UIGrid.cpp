// "UIGrid": a grid of cell objects addressed (column, row, layer), each held with a counted
// reference, that renders itself as lines and lets every cell draw itself in its rectangle.
//
// Layout in a rectangle {x, y, width, height} with C columns and row height h: column c
// spans x + c * width / C to x + (c + 1) * width / C (integer division), so the columns fill
// the width exactly and differ by at most one pixel; row r spans y + r * h to y + (r + 1) * h.
// Rows that start below the rectangle are not drawn. Layers are drawn in order, 0 first.
// Options are kept by code and read back; the grid's drawing does not depend on them.
#include <cstdint>
#include <map>
#include <tuple>

#include "host/common/PeerModule.h"
#include "host/ui/canvas/Canvas.h"

namespace {

// Largest sizes a grid accepts, so that a bad size cannot make a render run for ever.
constexpr int kMaxGridColumns = 4096;
constexpr int kMaxGridRows = 4096;
constexpr int kMaxGridLayers = 64;
constexpr int kMaxRowHeight = 4096;
constexpr int kDefaultRowHeight = 20;

// A coordinate worked in 64 bits, brought back into the int range of CANVASRect.
int Clamp(int64_t value) {
  return value < INT32_MIN ? INT32_MIN : value > INT32_MAX ? INT32_MAX : static_cast<int>(value);
}

typedef std::tuple<int, int, int> CellKey;  // layer, row, column: the order cells are drawn

}  // namespace

class CUIGrid : public CObject<CUIGrid>, public IUIGrid, public IRenderableObject, public IObjectInfoImpl<CUIGrid> {
 public:
  ZELTRIM_OBJECT_REFCOUNT
  static const tagREFString m_ObjectName;

  ~CUIGrid() { ReleaseCells(); }

  HRESULT QueryInterface(const IID& iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (QueryRoute(iid, IID_IUnknown, static_cast<IUnknown*>(static_cast<CObject<CUIGrid>*>(this)), object) ||
        QueryRoute(iid, IID_IUIGrid, static_cast<IUIGrid*>(this), object) ||
        QueryRoute(iid, IID_IRenderableObject, static_cast<IRenderableObject*>(this), object) ||
        QueryRoute(iid, IID_IObjectInfo, static_cast<IObjectInfo*>(this), object))
      return S_OK;
    return E_NOINTERFACE;
  }

  // The cell's object with a reference; an empty cell gives null and S_FALSE.
  HRESULT get_Cell(int column, int row, int layer, IUnknown** item) override {
    if (!item) return E_POINTER;
    *item = nullptr;
    if (!Inside(column, row, layer)) return E_INVALIDARG;
    auto found = m_Cells.find(CellKey(layer, row, column));
    if (found == m_Cells.end()) return S_FALSE;
    *item = found->second;
    (*item)->AddRef();
    return S_OK;
  }

  // Holds the item in the cell (its reference taken before the old one goes); a null item
  // empties the cell.
  HRESULT put_Cell(int column, int row, int layer, IUnknown* item) override {
    if (!Inside(column, row, layer)) return E_INVALIDARG;
    const CellKey key(layer, row, column);
    IUnknown* old = nullptr;
    auto found = m_Cells.find(key);
    if (found != m_Cells.end()) old = found->second;
    if (item) {
      item->AddRef();
      try {
        m_Cells[key] = item;
      } catch (...) {
        item->Release();
        return E_FAIL;
      }
    } else if (found != m_Cells.end()) {
      m_Cells.erase(found);
    }
    if (old) old->Release();
    return S_OK;
  }

  HRESULT get_Size(int* columns, int* rows) override {
    if (!columns || !rows) return E_POINTER;
    *columns = m_Columns;
    *rows = m_Rows;
    return S_OK;
  }

  // Releases every cell; the size becomes 0 by 0 by 0. Row height and options stay.
  HRESULT Clear() override {
    ReleaseCells();
    m_Columns = m_Rows = m_Layers = 0;
    return S_OK;
  }

  // One height serves every row; its selector is 0.
  HRESULT get_RowHeight(int which, int* height) override {
    if (!height) return E_POINTER;
    if (which != 0) return E_INVALIDARG;
    *height = m_RowHeight;
    return S_OK;
  }

  HRESULT put_RowHeight(int which, int height) override {
    if (which != 0 || height < 1 || height > kMaxRowHeight) return E_INVALIDARG;
    m_RowHeight = height;
    return S_OK;
  }

  // A code never set reads as 0 with S_FALSE.
  HRESULT get_Option(int code, int* value) override {
    if (!value) return E_POINTER;
    auto found = m_Options.find(code);
    *value = found == m_Options.end() ? 0 : found->second;
    return found == m_Options.end() ? S_FALSE : S_OK;
  }

  HRESULT get_LayerCount(int* layers) override {
    if (!layers) return E_POINTER;
    *layers = m_Layers;
    return S_OK;
  }

  HRESULT put_Option(int code, int value) override {
    try {
      m_Options[code] = value;
    } catch (...) {
      return E_FAIL;
    }
    return S_OK;
  }

  HRESULT get_CellRect(const CANVASRect* grid, int column, int row, CANVASRect* cell) override {
    if (!grid || !cell) return E_POINTER;
    if (!Inside(column, row, 0)) return E_INVALIDARG;
    *cell = CellRect(*grid, column, row);
    return S_OK;
  }

  // Cells outside the new size are released. Each count from 0 up to its limit.
  HRESULT put_Size(int columns, int rows, int layers) override {
    if (columns < 0 || columns > kMaxGridColumns || rows < 0 || rows > kMaxGridRows || layers < 0 ||
        layers > kMaxGridLayers)
      return E_INVALIDARG;
    m_Columns = columns;
    m_Rows = rows;
    m_Layers = layers;
    std::map<CellKey, IUnknown*> dropped;
    for (auto it = m_Cells.begin(); it != m_Cells.end();) {
      if (Inside(std::get<2>(it->first), std::get<1>(it->first), std::get<0>(it->first))) {
        ++it;
      } else {
        dropped.insert(*it);
        it = m_Cells.erase(it);
      }
    }
    for (auto& cell : dropped) cell.second->Release();
    return S_OK;
  }

  // Lines around and between the cells that fall in the rectangle, then each cell that
  // answers IRenderableObject, asked to draw in its cell rectangle with the same context
  // and flags. The first failing cell's result is returned after all have drawn.
  HRESULT Render(UbuntuCanvas* canvas, CANVASRect* rect, IUnknown* context, int flags) override {
    if (!canvas || !rect) return E_POINTER;
    if (rect->width <= 0 || rect->height <= 0 || m_Columns == 0 || m_Rows == 0) return S_OK;
    const int shownRows = VisibleRows(*rect);
    HRESULT result = S_OK;
    try {
      const int bottom = Clamp(int64_t{rect->y} + int64_t{shownRows} * m_RowHeight);
      for (int c = 0; c <= m_Columns; ++c) {
        const int x = ColumnEdge(*rect, c);
        canvas->Line(x, rect->y, x, bottom, kCanvasGridLine);
      }
      for (int r = 0; r <= shownRows; ++r) {
        const int y = Clamp(int64_t{rect->y} + int64_t{r} * m_RowHeight);
        canvas->Line(rect->x, y, Clamp(int64_t{rect->x} + rect->width), y, kCanvasGridLine);
      }
      // A cell may change the grid while it draws; references keep each one alive.
      std::map<CellKey, SmartPtr<IUnknown>> cells;
      for (auto& cell : m_Cells) cells.emplace(cell.first, SmartPtr<IUnknown>(cell.second));
      for (auto& cell : cells) {
        const int row = std::get<1>(cell.first);
        if (row >= shownRows) continue;
        SmartPtr<IRenderableObject> renderable = QueryAs<IRenderableObject>(cell.second);
        if (!renderable) continue;
        CANVASRect place = CellRect(*rect, std::get<2>(cell.first), row);
        const HRESULT hr = renderable->Render(canvas, &place, context, flags);
        if (hr < 0 && result >= 0) result = hr;
      }
    } catch (...) {
      return E_FAIL;
    }
    return result;
  }

 private:
  bool Inside(int column, int row, int layer) const {
    return column >= 0 && column < m_Columns && row >= 0 && row < m_Rows && layer >= 0 && layer < m_Layers;
  }

  int ColumnEdge(const CANVASRect& grid, int column) const {
    const int64_t width = grid.width > 0 ? grid.width : 0;
    return Clamp(grid.x + width * column / m_Columns);
  }

  CANVASRect CellRect(const CANVASRect& grid, int column, int row) const {
    const int left = ColumnEdge(grid, column);
    return CANVASRect{left, Clamp(grid.y + int64_t{row} * m_RowHeight), ColumnEdge(grid, column + 1) - left,
                      m_RowHeight};
  }

  // Rows whose top lies inside the rectangle.
  int VisibleRows(const CANVASRect& grid) const {
    const int64_t fit = (int64_t{grid.height} + m_RowHeight - 1) / m_RowHeight;
    return fit < m_Rows ? static_cast<int>(fit) : m_Rows;
  }

  void ReleaseCells() {
    std::map<CellKey, IUnknown*> cells;
    cells.swap(m_Cells);
    for (auto& cell : cells) cell.second->Release();
  }

  int m_Columns = 0, m_Rows = 0, m_Layers = 0;
  int m_RowHeight = kDefaultRowHeight;
  std::map<CellKey, IUnknown*> m_Cells;
  std::map<int, int> m_Options;
};

ZELTRIM_PEER_OBJECT(L"UIGrid", CUIGrid);

const tagREFString CUIGrid::m_ObjectName = {6, L"UIGrid"};
