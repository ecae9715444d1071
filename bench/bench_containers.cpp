// Containers in a live session: table insert and lookup around the flat limit and at
// large sizes, a write to a shared big table, and op(set, i) in a loop.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MEV_eval.h"
#include "MEV_ops.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {

Cell parsed(const std::string& text) {
    MPA_tree_reader r(text, false, 1);
    r.run();
    return r.take_result();
}

std::vector<Cell> integer_keys(long n) {
    std::vector<Cell> keys;
    keys.reserve(size_t(n));
    for (long i = 0; i < n; ++i) keys.push_back(MAR_from_long(i * 7919 + 13));
    return keys;
}

void release_all(std::vector<Cell>& cells) {
    for (Cell c : cells) MMM_release(c);
    cells.clear();
}

Cell table_of(const std::vector<Cell>& keys) {
    Cell t = MMM_make_table(0);
    for (Cell k : keys) MMM_table_set(&MMM_children(t)[0], k, k);
    MMM_sign(t);
    return t;
}

// Fills a table with n entries, one insert at a time from an empty table: the flat
// growth, the move to buckets at 17 and the rebuilds at the load limit all count.
void BM_table_insert(benchmark::State& state) {
    std::vector<Cell> keys = integer_keys(state.range(0));
    for (auto _ : state) {
        Cell t = table_of(keys);
        benchmark::DoNotOptimize(t);
        MMM_release(t);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    release_all(keys);
    MMM_reclaim();
}
BENCHMARK(BM_table_insert)->Arg(10)->Arg(17)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// Finds every key of a table of n entries.
void BM_table_lookup(benchmark::State& state) {
    std::vector<Cell> keys = integer_keys(state.range(0));
    Cell t = table_of(keys);
    Cell hash = MMM_child(t, 0);
    long found = 0;
    for (auto _ : state) {
        for (Cell k : keys) found += MMM_table_find(hash, k, nullptr);
    }
    benchmark::DoNotOptimize(found);
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    MMM_release(t);
    release_all(keys);
    MMM_reclaim();
}
BENCHMARK(BM_table_lookup)->Arg(10)->Arg(17)->Arg(10000)->Arg(1000000)->Unit(benchmark::kMicrosecond);

// b := a: b[k] := v on a table of 10^5 entries, through the evaluator: the write copies
// the bucket array and one bucket, never the entries.
void BM_shared_table_write(benchmark::State& state) {
    std::vector<Cell> keys = integer_keys(100000);
    Cell a = MMM_ident_named("bench_a");
    Cell t = table_of(keys);
    MMM_release(MMM_set_value(a, t, 0, MMM_root_frame));
    MMM_release(t);
    Cell stmt = parsed("bench_b := bench_a: bench_b[13] := 0:");
    uint64_t cells = 0;
    for (auto _ : state) {
        const uint64_t before = MMM_allocations();
        Cell v = MEV_eval_stmt(stmt);
        cells += MMM_allocations() - before;
        MMM_release(v);
    }
    state.counters["cells_per_write"] = double(cells) / double(state.iterations());
    MMM_release(stmt);
    MMM_release(MMM_set_value(a, nullptr, 0, MMM_root_frame));
    MMM_release(a);
    release_all(keys);
    MMM_reclaim();
}
BENCHMARK(BM_shared_table_write)->Unit(benchmark::kMicrosecond);

// op(s, i) for i = 1 .. n on a set of n elements: forwards the positions are served by
// the walk cursor; backwards each one walks from the start.
void op_loop(benchmark::State& state, bool forwards) {
    const long n = state.range(0);
    std::vector<Cell> keys = integer_keys(n);
    Cell s = MMM_make_set(0);
    for (Cell k : keys) MMM_table_add(&MMM_children(s)[0], k, nullptr);
    MMM_sign(s);
    for (auto _ : state) {
        for (long i = 1; i <= n; ++i) {
            Cell x = MEV_op(s, forwards ? i : n + 1 - i);
            benchmark::DoNotOptimize(x);
            MMM_release(x);
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
    MMM_release(s);
    release_all(keys);
    MMM_reclaim();
}
void BM_op_set_forwards(benchmark::State& state) { op_loop(state, true); }
void BM_op_set_backwards(benchmark::State& state) { op_loop(state, false); }
BENCHMARK(BM_op_set_forwards)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_op_set_backwards)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// The same loop in the language, with the evaluator's own costs.
void BM_op_set_language_loop(benchmark::State& state) {
    const std::string n = std::to_string(state.range(0));
    Cell setup = parsed("bench_s := {bench_i $ bench_i = 1.." + n + "}:");
    MMM_release(MEV_eval_stmt(setup));
    MMM_release(setup);
    Cell loop = parsed("for bench_i from 1 to " + n + " do op(bench_s, bench_i) end_for:");
    for (auto _ : state) MMM_release(MEV_eval_stmt(loop));
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    MMM_release(loop);
    MMM_reclaim();
}
BENCHMARK(BM_op_set_language_loop)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace
