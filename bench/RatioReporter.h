// A console reporter that keeps the CPU time of every run (the median when repetitions
// are asked for; CPU time, because the build machines are shared) and, at the end,
// prints the ratio of each independent library's time to ours for the pairs named
// <stem>/ours and <stem>/<library> (above 1: ours is faster).
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  explicit RatioReporter(std::vector<std::string> libraries) : libraries_(std::move(libraries)) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
      times_[r.run_name.str()] = r.GetAdjustedCPUTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatios() const {
    std::printf("\n%-44s %14s %14s %8s\n", "case (CPU time)", "ours", "library", "lib/ours");
    const std::string suffix = "/ours";
    for (const auto& [name, ours] : times_) {
      if (name.size() < suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
        continue;
      const std::string stem = name.substr(0, name.size() - suffix.size());
      for (const std::string& library : libraries_) {
        auto it = times_.find(stem + "/" + library);
        if (it == times_.end()) continue;
        std::printf("%-44s %14.3f %14.3f %8.2f\n", (stem + "/" + library).c_str(), ours, it->second, it->second / ours);
      }
    }
  }

 private:
  std::vector<std::string> libraries_;
  std::map<std::string, double> times_;
};
