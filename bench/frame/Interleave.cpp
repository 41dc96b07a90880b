#include "Interleave.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

Effort& mutableEffort() {
    static Effort e;
    return e;
}

// Per stage: the candidates' names in order and, per candidate, the median and minimum call of
// every round.
struct StageResults {
    std::vector<std::string> names;
    std::vector<std::vector<Timing>> rounds;
};
std::map<std::string, StageResults>& results() {
    static std::map<std::string, StageResults> all;
    return all;
}
std::vector<std::string>& stageOrder() {
    static std::vector<std::string> order;
    return order;
}
std::vector<Target>& targets() {
    static std::vector<Target> list;
    return list;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

// One round: calls of every candidate in turn, the first to go rotating so that none always
// runs right after another's cache footprint.
void round(const std::vector<Candidate>& candidates, StageResults& out, benchmark::State& state) {
    const size_t n = candidates.size();
    const Effort& e = effort();
    std::vector<std::vector<double>> seconds(n);
    const Clock::time_point end =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(e.secondsPerRound));
    for (int call = 0; call < e.maxCalls; ++call) {
        if (call >= e.minCalls && Clock::now() >= end) break;
        for (size_t j = 0; j < n; ++j) {
            const size_t k = (size_t(call) + j) % n;
            const Candidate& c = candidates[k];
            if (c.reset) c.reset();
            const Clock::time_point t0 = Clock::now();
            c.call();
            benchmark::ClobberMemory();
            seconds[k].push_back(std::chrono::duration<double>(Clock::now() - t0).count());
        }
    }
    out.rounds.resize(n);
    for (size_t k = 0; k < n; ++k) {
        const Timing t{median(seconds[k]), *std::min_element(seconds[k].begin(), seconds[k].end())};
        out.rounds[k].push_back(t);
        state.counters[candidates[k].name] = benchmark::Counter(t.median * 1e3);
    }
    state.SetIterationTime(out.rounds[0].back().median);
}

}  // namespace

void parseEffort(int* argc, char** argv) {
    Effort& e = mutableEffort();
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        const char* a = argv[i];
        if (std::strcmp(a, "--quick") == 0) {
            e.rounds = 1;
            e.secondsPerRound = 0;
            e.minCalls = 1;
            e.maxCalls = 1;
        } else if (std::strncmp(a, "--rounds=", 9) == 0) {
            e.rounds = std::max(1, std::atoi(a + 9));
        } else if (std::strncmp(a, "--seconds=", 10) == 0) {
            e.secondsPerRound = std::max(0.0, std::atof(a + 10));
        } else {
            argv[kept++] = argv[i];
        }
    }
    *argc = kept;
}

const Effort& effort() {
    return mutableEffort();
}

void compare(const std::string& stage, std::vector<Candidate> candidates) {
    auto shared = std::make_shared<const std::vector<Candidate>>(std::move(candidates));
    stageOrder().push_back(stage);
    benchmark::RegisterBenchmark(("stage/" + stage).c_str(),
                                 [stage, shared](benchmark::State& state) {
                                     StageResults& r = results()[stage];
                                     r.names.clear();
                                     for (const Candidate& c : *shared)
                                         r.names.push_back(c.name);
                                     for (auto _ : state)
                                         round(*shared, r, state);
                                 })
        ->Iterations(1)
        ->Repetitions(effort().rounds)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

bool timing(const std::string& stage, const std::string& candidate, Timing* out) {
    const auto it = results().find(stage);
    if (it == results().end()) return false;
    const StageResults& r = it->second;
    for (size_t k = 0; k < r.names.size() && k < r.rounds.size(); ++k) {
        if (r.names[k] != candidate || r.rounds[k].empty()) continue;
        std::vector<double> medians;
        double minimum = r.rounds[k][0].minimum;
        for (const Timing& t : r.rounds[k]) {
            medians.push_back(t.median);
            minimum = std::min(minimum, t.minimum);
        }
        *out = {median(medians), minimum};
        return true;
    }
    return false;
}

void addTarget(const Target& target) {
    targets().push_back(target);
}

int printSummary() {
    std::printf("\n%-26s %-40s %10s %10s %8s\n", "stage", "candidate (first: ours)", "median ms",
                "min ms", "vs first");
    for (const std::string& stage : stageOrder()) {
        const auto it = results().find(stage);
        if (it == results().end()) continue;
        Timing own;
        timing(stage, it->second.names[0], &own);
        for (size_t k = 0; k < it->second.names.size(); ++k) {
            const std::string& name = it->second.names[k];
            Timing t;
            if (!timing(stage, name, &t)) continue;
            std::printf("%-26s %-40s %10.3f %10.3f %7.2fx\n", k == 0 ? stage.c_str() : "",
                        name.c_str(), t.median * 1e3, t.minimum * 1e3,
                        own.median > 0 ? t.median / own.median : 0.0);
        }
    }
    int missed = 0;
    std::printf("\n%-56s %10s %12s  %s\n", "target", "measured", "target", "");
    for (const Target& target : targets()) {
        Timing candidate, reference;
        if (!timing(target.stage, target.candidate, &candidate)) continue;
        char measured[32], wanted[32];
        bool met;
        if (target.reference.empty()) {
            std::snprintf(measured, sizeof measured, "%.2f ms", candidate.median * 1e3);
            std::snprintf(wanted, sizeof wanted, "<= %.2f ms", target.milliseconds);
            met = candidate.median * 1e3 <= target.milliseconds;
        } else {
            if (!timing(target.stage, target.reference, &reference)) continue;
            const double speedUp = reference.median / candidate.median;
            std::snprintf(measured, sizeof measured, "%.2fx", speedUp);
            std::snprintf(wanted, sizeof wanted, ">= %.2fx", target.speedUp);
            met = speedUp >= target.speedUp;
        }
        missed += !met;
        std::printf("%-56s %10s %12s  %s\n", target.what.c_str(), measured, wanted,
                    met ? "met" : "MISSED");
    }
    return missed;
}

}  // namespace bench
