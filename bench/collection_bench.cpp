// The calibrations collection ("CalibrationsCollection") through the loaded module, as a
// host drives it, at 10, 100 and 1,000 members (CameraLinearCalibration objects named
// "cal0000", "cal0001", ...): Add of every member into a new collection, get_Index of one
// name (the last member's, the far end of the linear search), get_Index of every member's
// name (N look-ups of a linear search: quadratic by nature, for reference), Sort of
// shuffled names, and Save and Load through the collection's file archive in the XML and
// folder-stream forms (files in a temporary folder). Google Benchmark fits the growth
// (the BigO rows). Last, read throughput from several threads (get_ItemName and get_Index)
// with and without one thread that adds, removes and renames at the same time. Runs from
// the build folder, where _binlinux/ holds the module and its peers.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "bench/BenchModule.h"

namespace {

SmartPtr<IString> Str(const std::wstring& text) {
  SmartPtr<ICreatableString> s = Host().CreateHost<ICreatableString>(L"CreatableString");
  if (s) s->SetString(static_cast<int>(text.size()), text.c_str());
  return SmartPtr<IString>(s.get());
}

std::wstring MemberName(int i) {
  wchar_t name[16];
  std::swprintf(name, 16, L"cal%04d", i);
  return name;
}

// N calibrations and their names, made once per size and reused.
struct Members {
  std::vector<SmartPtr<IUnknown>> calibrations;
  std::vector<SmartPtr<IString>> names;
  explicit Members(int n) {
    for (int i = 0; i < n; ++i) {
      calibrations.push_back(Host().Create<IUnknown>(L"CameraLinearCalibration"));
      names.push_back(Str(MemberName(i)));
    }
  }
  bool ok() const {
    for (size_t i = 0; i < names.size(); ++i)
      if (!calibrations[i] || !names[i]) return false;
    return true;
  }
};

SmartPtr<ICalibrationsCollection> Filled(const Members& m) {
  SmartPtr<ICalibrationsCollection> c = Host().Create<ICalibrationsCollection>(L"CalibrationsCollection");
  for (size_t i = 0; c && i < m.names.size(); ++i) c->Add(m.names[i], m.calibrations[i], nullptr, 0);
  return c;
}

bool Missing(benchmark::State& state, const Members& m, IUnknown* collection = nullptr, bool needCollection = false) {
  if (m.ok() && (!needCollection || collection)) return false;
  state.SkipWithError(("the module or its peers are missing: " + Host().Error()).c_str());
  return true;
}

void BM_Add(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  if (Missing(state, m)) return;
  for (auto _ : state) {
    SmartPtr<ICalibrationsCollection> c = Host().Create<ICalibrationsCollection>(L"CalibrationsCollection");
    for (int i = 0; i < n; ++i) c->Add(m.names[i], m.calibrations[i], nullptr, 0);
    benchmark::DoNotOptimize(c.get());
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetComplexityN(n);
}

void BM_FindLast(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  SmartPtr<ICalibrationsCollection> c = Filled(m);
  if (Missing(state, m, c, true)) return;
  IString* last = m.names.back();
  for (auto _ : state) {
    int index = -1;
    c->get_Index(last, &index);
    benchmark::DoNotOptimize(index);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetComplexityN(n);
}

void BM_FindEvery(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  SmartPtr<ICalibrationsCollection> c = Filled(m);
  if (Missing(state, m, c, true)) return;
  for (auto _ : state) {
    for (int i = 0; i < n; ++i) {
      int index = -1;
      c->get_Index(m.names[i], &index);
      benchmark::DoNotOptimize(index);
    }
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetComplexityN(n);
}

// Sort of a collection whose members were given shuffled names (outside the timing) since
// the last sort: it reads each calibration's name back, then sorts by it.
void BM_Sort(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  SmartPtr<ICalibrationsCollection> c = Filled(m);
  if (Missing(state, m, c, true)) return;
  std::vector<SmartPtr<ICalibrationInfo>> infos;
  for (int i = 0; i < n; ++i) infos.push_back(QueryAs<ICalibrationInfo>(m.calibrations[i]));
  std::vector<int> order(n);
  for (int i = 0; i < n; ++i) order[i] = i;
  std::mt19937 random(7);
  for (auto _ : state) {
    state.PauseTiming();
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < n; ++i) infos[i]->put_CALIBName(m.names[order[i]]);
    state.ResumeTiming();
    c->Sort(0);
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetComplexityN(n);
}

std::string TempFolder() {
  static std::string folder = [] {
    char pattern[] = "/tmp/zeltrim_collection_bench_XXXXXX";
    const char* made = mkdtemp(pattern);
    return std::string(made ? made : "/tmp");
  }();
  return folder;
}

SmartPtr<IString> PathString(const std::string& path) { return Str(std::wstring(path.begin(), path.end())); }

long FileBytes(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : 0;
}

// Save through the archive (put_Filename, Save): the module opens the stream the
// extension names, writes the members and then the file.
void BM_Save(benchmark::State& state, const char* extension) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  SmartPtr<ICalibrationsCollection> c = Filled(m);
  if (Missing(state, m, c, true)) return;
  const std::string path = TempFolder() + "/save" + std::to_string(n) + "." + extension;
  SmartPtr<IFileArchive> archive = QueryAs<IFileArchive>(c);
  archive->put_Filename(PathString(path));
  for (auto _ : state) {
    if (archive->Save() < 0) return state.SkipWithError("the save failed");
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetBytesProcessed(state.iterations() * FileBytes(path));
  state.SetComplexityN(n);
  std::remove(path.c_str());
}

// Load into a new collection through the archive: the file, then one object per member
// created by name and read from its element or entry.
void BM_Load(benchmark::State& state, const char* extension) {
  const int n = static_cast<int>(state.range(0));
  Members m(n);
  SmartPtr<ICalibrationsCollection> saved = Filled(m);
  if (Missing(state, m, saved, true)) return;
  const std::string path = TempFolder() + "/load" + std::to_string(n) + "." + extension;
  SmartPtr<IString> name = PathString(path);
  SmartPtr<IFileArchive> out = QueryAs<IFileArchive>(saved);
  out->put_Filename(name);
  if (out->Save() < 0) return state.SkipWithError("the save failed");
  for (auto _ : state) {
    SmartPtr<ICalibrationsCollection> c = Host().Create<ICalibrationsCollection>(L"CalibrationsCollection");
    SmartPtr<IFileArchive> in = QueryAs<IFileArchive>(c);
    in->put_Filename(name);
    in->Load();
    int count = 0;
    c->get_Count(&count);
    if (count != n) return state.SkipWithError("the load did not bring every member back");
  }
  state.SetItemsProcessed(state.iterations() * n);
  state.SetBytesProcessed(state.iterations() * FileBytes(path));
  state.SetComplexityN(n);
  std::remove(path.c_str());
}

// ---------------------------------------------------------------- threads

// One collection shared by the threads of a run: N calibration members and one plain
// member at index N, the one the writer renames (a plain member's rename takes the lock;
// a calibration member's does not, by contract, so it is not raced here).
struct Shared {
  Members* members = nullptr;
  SmartPtr<ICalibrationsCollection> collection;
  SmartPtr<IString> plainNames[2];
  SmartPtr<IUnknown> extra;
  SmartPtr<IString> extraName;
};
Shared g_shared;

void SetUpShared(int n) {
  g_shared.members = new Members(n);
  g_shared.collection = Filled(*g_shared.members);
  g_shared.plainNames[0] = Str(L"plain_a");
  g_shared.plainNames[1] = Str(L"plain_b");
  if (g_shared.collection) g_shared.collection->Add(g_shared.plainNames[0], Str(L"text"), nullptr, 0);
  g_shared.extra = Host().Create<IUnknown>(L"CameraLinearCalibration");
  g_shared.extraName = Str(L"extra");
}

void TearDownShared() {
  g_shared.collection.Clear();
  g_shared.extra.Clear();
  delete g_shared.members;
  g_shared.members = nullptr;
}

// Each reader iteration: get_ItemName of one member and get_Index of another's name,
// stepping through the members. With `writer`, thread 0 instead adds a calibration,
// removes it again and renames the plain member, over and over: "writes" counts those
// rounds; items are reads only.
void BM_ReadThroughput(benchmark::State& state, bool writer) {
  const int n = static_cast<int>(state.range(0));
  if (state.thread_index() == 0) SetUpShared(n);
  const bool writes = writer && state.thread_index() == 0;
  int64_t reads = 0, rounds = 0;
  for (auto _ : state) {
    ICalibrationsCollection* c = g_shared.collection;
    if (!c || !g_shared.members->ok()) {
      state.SkipWithError("the module or its peers are missing");
      break;
    }
    if (writes) {
      c->Add(g_shared.extraName, g_shared.extra, nullptr, 0);
      c->Remove(n + 1);
      c->Rename(n, g_shared.plainNames[rounds & 1]);
      ++rounds;
      continue;
    }
    const int i = static_cast<int>((reads * 7919 + state.thread_index()) % n);
    SmartPtr<IString> name;
    c->get_ItemName(i, name.Out());
    int index = -1;
    c->get_Index(g_shared.members->names[(i * 31 + 17) % n], &index);
    benchmark::DoNotOptimize(index);
    ++reads;
  }
  state.SetItemsProcessed(reads);
  if (writer) state.counters["writes"] = benchmark::Counter(static_cast<double>(rounds), benchmark::Counter::kIsRate);
  if (state.thread_index() == 0) TearDownShared();
}

}  // namespace

int main(int argc, char** argv) {
  const auto sizes = [](benchmark::internal::Benchmark* b) { b->RangeMultiplier(10)->Range(10, 1000)->Complexity(); };
  sizes(benchmark::RegisterBenchmark("Collection/Add", BM_Add));
  sizes(benchmark::RegisterBenchmark("Collection/FindLast", BM_FindLast));
  sizes(benchmark::RegisterBenchmark("Collection/FindEvery", BM_FindEvery));
  sizes(benchmark::RegisterBenchmark("Collection/Sort", BM_Sort));
  sizes(benchmark::RegisterBenchmark("Collection/Save/xml", BM_Save, "xml"));
  sizes(benchmark::RegisterBenchmark("Collection/Save/folder", BM_Save, "tcol"));
  sizes(benchmark::RegisterBenchmark("Collection/Load/xml", BM_Load, "xml"));
  sizes(benchmark::RegisterBenchmark("Collection/Load/folder", BM_Load, "tcol"));
  benchmark::RegisterBenchmark("Collection/Reads", BM_ReadThroughput, false)
      ->Arg(100)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();
  // Thread 0 writes, the others read: 1 and 2 readers.
  benchmark::RegisterBenchmark("Collection/ReadsWithWriter", BM_ReadThroughput, true)
      ->Arg(100)->Arg(1000)->Threads(2)->Threads(3)->UseRealTime();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  rmdir(TempFolder().c_str());
  return 0;
}
