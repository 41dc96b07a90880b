// The frame processor's benchmarks. After Google Benchmark's table it prints the ratios that
// matter, each measured against a floor or baseline of the same run, and every whole pipeline
// as a share of the 33.3 ms between two frames at 30 frames per second.
//
//   scripts/bench.sh [Google Benchmark options]
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "BenchInputs.h"

void registerStageBenchmarks();
void registerPipelineBenchmarks();

namespace {

// Collects every run's real time per iteration (the median when repeated).
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) continue;
            const std::string name = run.run_name.function_name;
            const double seconds =
                run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            if (median || !medians_.count(name)) seconds_[name] = seconds;
            if (median) medians_[name] = true;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-52s %9s %9s  %s\n", "ratio", "value", "target", "");
        for (const bench::Ratio& r : bench::ratios()) {
            if (!seconds_.count(r.numerator) || !seconds_.count(r.denominator)) continue;
            const double ratio = seconds_[r.numerator] / seconds_[r.denominator];
            std::string target = "-", verdict;
            if (r.target != 0) {
                char text[32];
                std::snprintf(text, sizeof text, "%s%.1f",
                              r.target > 0 ? ">= " : "<= ", r.target > 0 ? r.target : -r.target);
                target = text;
                const bool met = r.target > 0 ? ratio >= r.target : ratio <= -r.target;
                verdict = met ? "met" : "MISSED";
            }
            std::printf("%-52s %8.2fx %9s  %s\n", r.what.c_str(), ratio, target.c_str(),
                        verdict.c_str());
        }
        std::printf("\n%-52s %9s %9s\n", "whole pipeline per frame", "ms", "of 33.3ms");
        for (const auto& [name, seconds] : seconds_) {
            if (name.rfind("pipeline/", 0) != 0) continue;
            std::printf("%-52s %9.2f %8.1f%%\n", name.c_str(), seconds * 1e3,
                        100 * seconds / (1.0 / 30));
        }
    }

  private:
    std::map<std::string, double> seconds_;
    std::map<std::string, bool> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    registerStageBenchmarks();
    registerPipelineBenchmarks();
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
