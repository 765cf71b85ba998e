// Side-by-side timing for comparisons that must hold within a few percent on
// cores shared with other processes: our operation and the other one run in
// alternation, round after round, so a burst of outside load falls on both
// sides alike, and the median of the per-round ratios discards the rounds that
// a burst still hit unevenly. Each side is timed in the thread's CPU time,
// which waiting for a core does not inflate, and in wall-clock time.
#ifndef TAVIK_BENCH_PAIREDRUN_H_
#define TAVIK_BENCH_PAIREDRUN_H_

#include <benchmark/benchmark.h>

#include <functional>

namespace tavik {
namespace bench {

struct PairedResult {
  double oursMedian = 0;       // CPU seconds of a round, median over the rounds
  double theirsMedian = 0;     // likewise
  double ratioMedian = 0;      // median over the rounds of ours / theirs, CPU time
  double wallRatioMedian = 0;  // the same in wall-clock time
  int rounds = 0;
};

// Runs `ours(round)` and `theirs(round)` once per round, the one first in even
// rounds, the other in odd ones. A side that returns false ends the run and
// sets `failed`.
PairedResult runPaired(int rounds, const std::function<bool(int)>& ours,
                       const std::function<bool(int)>& theirs, bool& failed);

// Sets `state`'s counters: ours_us and theirs_us per unit of work (a round's
// time divided by `unitsPerRound`), ratio, wall_ratio and rounds.
void reportPaired(benchmark::State& state, const PairedResult& result, int unitsPerRound);

}  // namespace bench
}  // namespace tavik

#endif  // TAVIK_BENCH_PAIREDRUN_H_
