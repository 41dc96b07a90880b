// The frame processor's benchmarks: every stage beside its floor, a plain baseline or the
// OpenCV calls it replaces, and whole frames, each stage's candidates timed call by call in
// turn. Ends with each candidate's median and minimum and every target as measured / target /
// met.
//
//   frame_bench [--quick] [--rounds=N] [--seconds=S] [Google Benchmark options]
#include <benchmark/benchmark.h>

#include "Interleave.h"

void registerStageBenchmarks();
void registerPipelineBenchmarks();

namespace {

// Google Benchmark's console output of the rounds, without its aggregates over them (the
// summary has medians and minima).
class RoundReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> kept;
        for (const Run& run : runs)
            if (run.run_type != Run::RT_Aggregate) kept.push_back(run);
        if (!kept.empty()) ConsoleReporter::ReportRuns(kept);
    }
};

}  // namespace

int main(int argc, char** argv) {
    bench::parseEffort(&argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    registerStageBenchmarks();
    registerPipelineBenchmarks();
    RoundReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    bench::printSummary();
    return 0;
}
