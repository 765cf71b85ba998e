#include "pairedrun.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace tavik {
namespace bench {

namespace {

double timeOf(const std::function<bool(int)>& side, int round, bool& failed) {
  const auto start = std::chrono::steady_clock::now();
  if (!side(round)) failed = true;
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  return took.count();
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
  std::vector<double> oursTimes;
  std::vector<double> theirsTimes;
  std::vector<double> ratios;
  PairedResult result;
  for (int round = 0; round < rounds && !failed; ++round) {
    double oursTime = 0;
    double theirsTime = 0;
    if (round % 2 == 0) {
      oursTime = timeOf(ours, round, failed);
      theirsTime = timeOf(theirs, round, failed);
    } else {
      theirsTime = timeOf(theirs, round, failed);
      oursTime = timeOf(ours, round, failed);
    }
    oursTimes.push_back(oursTime);
    theirsTimes.push_back(theirsTime);
    ratios.push_back(oursTime / theirsTime);
    result.total += oursTime + theirsTime;
  }
  if (failed || ratios.empty()) return result;
  result.rounds = static_cast<int>(ratios.size());
  result.oursMedian = medianOf(oursTimes);
  result.theirsMedian = medianOf(theirsTimes);
  result.ratioMedian = medianOf(ratios);
  result.ratioOfMinimums = *std::min_element(oursTimes.begin(), oursTimes.end()) /
                           *std::min_element(theirsTimes.begin(), theirsTimes.end());
  return result;
}

void reportPaired(benchmark::State& state, const PairedResult& result, int unitsPerRound) {
  state.counters["ours_us"] = result.oursMedian * 1e6 / unitsPerRound;
  state.counters["theirs_us"] = result.theirsMedian * 1e6 / unitsPerRound;
  state.counters["ratio"] = result.ratioMedian;
  state.counters["ratio_of_minimums"] = result.ratioOfMinimums;
  state.counters["rounds"] = result.rounds;
}

}  // namespace bench
}  // namespace tavik
