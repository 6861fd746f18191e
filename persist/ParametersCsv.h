// The CSV form of the parameter collection: values (or name=value pairs) separated by
// commas.
#pragma once

#include "persist/ParametersCollection.h"

// Comma-separated values on a CSV stream. The byte counts handed to Write are twice the
// character counts (2 for a separator), so only half of each text's bytes go out.
template <class T, class I>
HRESULT IParametersImpl<T, I>::Params_SaveCSV(IDataStream* stream, int options) {
  using namespace params_detail;
  SmartPtr<ICSVStream> csv = QueryAs<ICSVStream>(stream);
  if (!csv) return S_OK;
  // Two bytes a character, though a character takes four.
  auto writeHalf = [stream](IString* text) {
    const std::wstring chars = Text(text);
    stream->Write(chars.c_str(), static_cast<int>(chars.size()) * 2, 0);
  };
  const int count = m_Count;
  for (int i = 0; i < count; ++i) {
    int flags = 0;
    this->get_ItemFlags(i, &flags);
    if ((options & PERSIST_COMPACT) && (flags & PARAM_COMPACT_DROP)) continue;
    if (i > 0) stream->Write(L",", 2, 0);
    if (options & PERSIST_CSV_NAME_VALUE) {
      SmartPtr<IString> name;
      this->get_ItemName(i, name.Out());
      writeHalf(name);
      stream->Write(L"=", 2, 0);
    }
    SmartPtr<IVariant> value;
    this->get_ItemVariant(i, value.Out());
    SmartPtr<IString> valueText;
    valueText.Attach(ValueText(value));
    writeHalf(valueText);
  }
  return S_OK;
}
