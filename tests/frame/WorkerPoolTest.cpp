// The worker pool: every piece runs exactly once, whatever the helpers, the thread limit and
// the callers.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "frame/WorkerPool.h"

using Talvoro::frame::setThreadLimit;
using Talvoro::frame::WorkerPool;

namespace {

// Runs `pieces` pieces that count their runs, and checks each ran once.
void expectEachPieceOnce(WorkerPool& pool, size_t pieces) {
    std::vector<std::atomic<int>> runs(pieces);
    pool.run(
        pieces,
        [](void* context, size_t i, unsigned) {
            (*static_cast<std::vector<std::atomic<int>>*>(context))[i]++;
        },
        &runs);
    for (size_t i = 0; i < pieces; ++i)
        ASSERT_EQ(runs[i].load(), 1) << "piece " << i << " of " << pieces;
}

}  // namespace

TEST(WorkerPool, RunsEveryPieceOnceWhateverTheThreads) {
    for (unsigned helpers : {0u, 1u, 3u}) {
        WorkerPool pool(helpers);
        for (unsigned limit : {0u, 1u, 2u}) {
            setThreadLimit(limit);
            EXPECT_EQ(pool.threads(), limit == 0 ? helpers + 1 : std::min(helpers + 1, limit));
            for (size_t pieces : {0, 1, 2, 7, 64})
                for (int repeat = 0; repeat < 20; ++repeat)
                    expectEachPieceOnce(pool, pieces);
        }
    }
    setThreadLimit(0);
    EXPECT_GE(WorkerPool().threads(), 1u);
}

TEST(WorkerPool, ForEachCoversTheRangeOnce) {
    WorkerPool pool(2);
    for (size_t n : {0, 1, 5, 480}) {
        for (size_t pieces : {1, 3, 12, 1000}) {
            std::vector<std::atomic<int>> hits(n);
            pool.forEach(n, pieces, [&](size_t begin, size_t end, unsigned slot) {
                EXPECT_LT(slot, pool.slots());
                EXPECT_LT(begin, end);
                for (size_t i = begin; i < end; ++i)
                    hits[i]++;
            });
            for (size_t i = 0; i < n; ++i)
                ASSERT_EQ(hits[i].load(), 1) << n << " " << pieces;
        }
    }
}

TEST(WorkerPool, CallersFromSeveralThreadsTakeTurns) {
    WorkerPool pool(1);
    std::vector<std::thread> callers;
    for (int t = 0; t < 3; ++t)
        callers.emplace_back([&] {
            for (int repeat = 0; repeat < 50; ++repeat)
                expectEachPieceOnce(pool, 9);
        });
    for (std::thread& t : callers)
        t.join();
}
