// Procedure calls in a live session: recursion (fib(30)), a million calls of x -> x, and
// element-by-element writes into a list held by a local, at two sizes to show that the
// writes cost the same per element whatever the length.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "MER_error.h"
#include "MEV_eval.h"
#include "MMM_heap.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {

// Evaluates statements at the top level; an error ends the benchmark.
void run(benchmark::State& state, const std::string& text) {
    MPA_tree_reader r(text, false, 1);
    r.run();
    Cell t = r.take_result();
    if (!t) {
        state.SkipWithError("syntax error");
        return;
    }
    try {
        Cell v = MSE_frontend.eval(t);
        benchmark::DoNotOptimize(v);
        MMM_release(v);
    } catch (const MER_exception& e) {
        MSE_recover(true);
        state.SkipWithError(("error " + std::to_string(e.code)).c_str());
    }
    MMM_release(t);
}

void BM_fib30(benchmark::State& state) {
    std::string once = "bench_fib := proc(n) begin if n < 2 then n else bench_fib(n - 1) + bench_fib(n - 2) end_if end_proc";
    run(state, once);
    for (auto _ : state) run(state, "bench_fib(30)");
    state.counters["calls"] = 2692537;  // calls of fib(30), its own included
    state.counters["calls_per_s"] =
        benchmark::Counter(2692537.0 * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_fib30)->Unit(benchmark::kMillisecond);

void BM_identity_calls(benchmark::State& state) {
    run(state, "bench_id := x -> x");
    for (auto _ : state) run(state, "for bench_i from 1 to 1000000 do bench_id(bench_i) end_for");
    state.counters["calls_per_s"] = benchmark::Counter(1e6 * double(state.iterations()), benchmark::Counter::kIsRate);
    MMM_reclaim();
}
BENCHMARK(BM_identity_calls)->Unit(benchmark::kMillisecond);

void BM_local_list_fill(benchmark::State& state) {
    run(state,
        "bench_fill := proc(n) local L, i; begin L := [0 $ n]; for i from 1 to n do L[i] := i end_for; L[n] "
        "end_proc");
    const std::string call = "bench_fill(" + std::to_string(state.range(0)) + ")";
    for (auto _ : state) run(state, call);
    state.SetComplexityN(state.range(0));
    state.counters["ns_per_element"] = benchmark::Counter(
        double(state.range(0)) * double(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    MMM_reclaim();
}
BENCHMARK(BM_local_list_fill)->Arg(10000)->Arg(100000)->Complexity(benchmark::oN)->Unit(benchmark::kMillisecond);

}  // namespace
