// main of the benchmark programs that need a live session. The session starts in main,
// after every static table of the kernel exists.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "MSE_session.h"

int main(int argc, char** argv) {
    std::string program = argv[0];
    std::string lib = TORVA_LIBRARY_DIR;
    std::vector<char*> args = {program.data(), const_cast<char*>("-f"), const_cast<char*>("-l"), lib.data()};
    if (MSE_start(int(args.size()), args.data()) != MSE_RUNNING) return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
