#include "pairedrun.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace tavik {
namespace bench {

namespace {

double threadCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Timing {
  double cpu = 0;
  double wall = 0;
};

Timing timeOf(const std::function<bool(int)>& side, int round, bool& failed) {
  const double cpuStart = threadCpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  if (!side(round)) failed = true;
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  return Timing{threadCpuSeconds() - cpuStart, wall.count()};
}

double medianOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

PairedResult runPaired(int rounds, const std::function<bool(int)>& ours,
                       const std::function<bool(int)>& theirs, bool& failed) {
  failed = false;
  std::vector<double> oursTimes, theirsTimes, ratios, wallRatios;
  for (int round = 0; round < rounds && !failed; ++round) {
    Timing oursTime, theirsTime;
    if (round % 2 == 0) {
      oursTime = timeOf(ours, round, failed);
      theirsTime = timeOf(theirs, round, failed);
    } else {
      theirsTime = timeOf(theirs, round, failed);
      oursTime = timeOf(ours, round, failed);
    }
    oursTimes.push_back(oursTime.cpu);
    theirsTimes.push_back(theirsTime.cpu);
    ratios.push_back(oursTime.cpu / theirsTime.cpu);
    wallRatios.push_back(oursTime.wall / theirsTime.wall);
  }
  PairedResult result;
  if (failed || ratios.empty()) return result;
  result.oursMedian = medianOf(oursTimes);
  result.theirsMedian = medianOf(theirsTimes);
  result.ratioMedian = medianOf(ratios);
  result.wallRatioMedian = medianOf(wallRatios);
  result.rounds = static_cast<int>(ratios.size());
  return result;
}

void reportPaired(benchmark::State& state, const PairedResult& result, int unitsPerRound) {
  state.counters["ours_us"] = result.oursMedian * 1e6 / unitsPerRound;
  state.counters["theirs_us"] = result.theirsMedian * 1e6 / unitsPerRound;
  state.counters["ratio"] = result.ratioMedian;
  state.counters["wall_ratio"] = result.wallRatioMedian;
  state.counters["rounds"] = result.rounds;
}

}  // namespace bench
}  // namespace tavik
