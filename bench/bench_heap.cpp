// Allocation and release of cells against malloc and free.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "MMM_heap.h"

namespace {

struct HeapUp {
    HeapUp() {
        MMM_init(nullptr);
        MMM_open(0);
    }
};
HeapUp heap_up;

// One small node at a time: the pool path, then straight back to the free list.
void BM_cell_new_release(benchmark::State& state) {
    const long children = state.range(0);
    for (auto _ : state) {
        Cell c = MMM_new_cleared(MMM_NODE, 4, children);
        benchmark::DoNotOptimize(c);
        MMM_release(c);
    }
}
BENCHMARK(BM_cell_new_release)->Arg(1)->Arg(3)->Arg(8);

void BM_malloc_free(benchmark::State& state) {
    const size_t bytes = size_t(24 + 8 * state.range(0) + 4);
    for (auto _ : state) {
        void* p = std::calloc(1, bytes);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(BM_malloc_free)->Arg(1)->Arg(3)->Arg(8);

// Many live cells, released in allocation order.
void BM_cell_batch(benchmark::State& state) {
    std::vector<Cell> cells(size_t(state.range(0)));
    for (auto _ : state) {
        for (auto& c : cells) c = MMM_new(MMM_NODE, 4, 2), MMM_children(c)[0] = MMM_children(c)[1] = nullptr;
        for (Cell c : cells) MMM_release(c);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_cell_batch)->Arg(1000)->Arg(100000);

void BM_malloc_batch(benchmark::State& state) {
    std::vector<void*> blocks(size_t(state.range(0)));
    for (auto _ : state) {
        for (auto& p : blocks) p = std::malloc(44), static_cast<void**>(p)[0] = nullptr;
        for (void* p : blocks) std::free(p);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_malloc_batch)->Arg(1000)->Arg(100000);

// A tree released from its root: the release walk.
void BM_release_tree(benchmark::State& state) {
    const long n = state.range(0);
    for (auto _ : state) {
        state.PauseTiming();
        Cell head = nullptr;
        for (long i = 0; i < n; ++i) {
            Cell link = MMM_new(MMM_PAIR, 0, 2);
            MMM_children(link)[0] = head;
            MMM_children(link)[1] = nullptr;
            head = link;
        }
        state.ResumeTiming();
        MMM_release(head);
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_release_tree)->Arg(100000);

}  // namespace

BENCHMARK_MAIN();
