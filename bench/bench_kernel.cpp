// The front end and the evaluator in a live session: parse throughput, allocations per
// kilobyte of input, and the cost of the evaluator's hot paths.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "MER_error.h"
#include "MEV_eval.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {


// A file in the shape of library code: procedures with locals, loops, conditions,
// comments and strings.
std::string library_like(size_t bytes) {
    std::string out;
    for (int i = 0; out.size() < bytes; ++i) {
        const std::string n = std::to_string(i);
        out += "/* helper number " + n + " of the generated library */\n";
        out += "lib::f" + n + " := proc(x, y = " + n + " : DOM_INT)\n  local a, b, c;\n  option remember;\nbegin\n";
        out += "  a := x^2 + 3*x*y - y/2 + " + n + "/7;\n";
        out += "  if a > 0 and b <> c then\n    b := [a, b, c, \"text " + n + "\"]\n  else\n    c := {a, b}\n  end_if;\n";
        out += "  for i from 1 to 10 step 2 do\n    c := c + lib::g(i, a) - 1.25e-3 * i\n  end_for;\n";
        out += "  (u, v) -> u*v + a // closure\nend_proc:\n";
    }
    return out;
}

void BM_parse_library(benchmark::State& state) {
    const std::string text = library_like(size_t(state.range(0)));
    uint64_t cells = 0;
    for (auto _ : state) {
        const uint64_t before = MMM_allocations();
        MPA_tree_reader r(text, false, 1);
        r.run();
        benchmark::DoNotOptimize(r.result());
        cells += MMM_allocations() - before;
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(text.size()));
    state.counters["cells_per_KB"] = double(cells) / double(state.iterations()) / (double(text.size()) / 1024.0);
    MMM_reclaim();
}
BENCHMARK(BM_parse_library)->Arg(1 << 20)->Unit(benchmark::kMillisecond);

Cell parsed(const char* text) {
    MPA_tree_reader r(text, false, 1);
    r.run();
    return r.take_result();
}

// f(1, 2, 3) with constant operands: no cell is made.
void BM_eval_constant_call(benchmark::State& state) {
    Cell t = parsed("bench_f(1, 2, 3)");
    const uint64_t before = MMM_allocations();
    for (auto _ : state) {
        Cell v = MEV_eval(t, MEV_CONTEXT_ARGUMENT, 0);
        benchmark::DoNotOptimize(v);
        MMM_release(v);
    }
    state.counters["cells_per_call"] = double(MMM_allocations() - before) / double(state.iterations());
    MMM_release(t);
}
BENCHMARK(BM_eval_constant_call);

// A tree of symbolic calls, f(g(x1, x2), h(x3, x4)) to depth 10: every node is evaluated
// and nothing changes, so nothing is copied.
void BM_eval_symbolic_tree(benchmark::State& state) {
    std::string text = "x";
    for (int d = 0; d < 10; ++d) text = "f" + std::to_string(d) + "(" + text + ", " + text + ")";
    Cell t = parsed(text.c_str());
    uint64_t steps = 0;
    const uint64_t before = MMM_allocations();
    for (auto _ : state) {
        const uint32_t s0 = MEV_steps;
        Cell v = MEV_eval(t, MEV_CONTEXT_ARGUMENT, 0);
        benchmark::DoNotOptimize(v);
        MMM_release(v);
        steps += MEV_steps >= s0 ? MEV_steps - s0 : MEV_steps;  // the tick resets the counter
    }
    state.counters["steps_per_s"] = benchmark::Counter(double(steps), benchmark::Counter::kIsRate);
    state.counters["cells_per_eval"] = double(MMM_allocations() - before) / double(state.iterations());
    MMM_release(t);
}
BENCHMARK(BM_eval_symbolic_tree);

// A global variable read from the same frame: served by the identifier's cache.
void BM_identifier_lookup(benchmark::State& state) {
    Cell x = MMM_ident_named("bench_x");
    Cell one = parsed("1");
    MMM_release(MMM_set_value(x, one, 0, MMM_root_frame));
    for (auto _ : state) {
        Cell v = MEV_eval(x, MEV_CONTEXT_ARGUMENT, 0);
        benchmark::DoNotOptimize(v);
        MMM_release(v);
    }
    MMM_release(one);
    MMM_release(x);
}
BENCHMARK(BM_identifier_lookup);

// The dispatch alone: a number evaluates to itself.
void BM_eval_dispatch(benchmark::State& state) {
    Cell n = parsed("12345");
    for (auto _ : state) {
        Cell v = MEV_eval(n, MEV_CONTEXT_ARGUMENT, 0);
        benchmark::DoNotOptimize(v);
        MMM_release(v);
    }
    MMM_release(n);
}
BENCHMARK(BM_eval_dispatch);

}  // namespace
