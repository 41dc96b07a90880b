// Candidates of one stage timed call by call in turn: a busy machine slows them alike, so their
// ratio holds even when absolute times do not. Each stage is a Google Benchmark benchmark whose
// repetitions are rounds; after the run, every candidate's median and minimum call time over
// the rounds, and every target as measured / target / met.
#ifndef TALVORO_BENCH_FRAME_INTERLEAVE_H
#define TALVORO_BENCH_FRAME_INTERLEAVE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Candidate {
    Candidate(std::string n, std::function<void()> c, std::function<void()> r = {})
        : name(std::move(n)), call(std::move(c)), reset(std::move(r)) {}
    std::string name;
    std::function<void()> call;   // timed
    std::function<void()> reset;  // before every call, not timed; may be empty
};

// How long to measure: rounds, and calls per candidate per round (as many as fit in
// secondsPerRound, within minCalls and maxCalls).
struct Effort {
    int rounds = 5;
    double secondsPerRound = 0.3;
    int minCalls = 3;
    int maxCalls = 400;
};

// Takes the options --quick (one round of one call: CI runs it so that the benchmark cannot rot),
// --rounds=N and --seconds=S (per round) out of argv.
void parseEffort(int* argc, char** argv);
const Effort& effort();

// Registers the benchmark "stage/<stage>". The first candidate is the stage's own code.
void compare(const std::string& stage, std::vector<Candidate> candidates);

// Median and minimum seconds per call over the rounds run; false when the stage did not run.
struct Timing {
    double median = 0;
    double minimum = 0;
};
bool timing(const std::string& stage, const std::string& candidate, Timing* out);

// A target: `reference` must take at least `speedUp` times as long as `candidate` (both of
// `stage`; medians), or, with `reference` empty, `candidate` at most `milliseconds` (median).
struct Target {
    Target(std::string w, std::string s, std::string c, std::string r, double up, double ms = 0)
        : what(std::move(w)),
          stage(std::move(s)),
          candidate(std::move(c)),
          reference(std::move(r)),
          speedUp(up),
          milliseconds(ms) {}
    std::string what;
    std::string stage;
    std::string candidate;
    std::string reference;
    double speedUp;
    double milliseconds;
};
void addTarget(const Target& target);

// The table of every stage's candidates, then the targets. Returns the number of targets missed.
int printSummary();

}  // namespace bench

#endif
