// Fuzz target: any byte sequence read as program text gives trees or numbered syntax
// errors, never a crash or a hang.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MPA_reader.h"
#include "MSE_session.h"

namespace {

bool start() {
    static std::string program = "parser_fuzz";
    static std::string lib = TORVA_LIBRARY_DIR;
    std::vector<char*> args = {program.data(), const_cast<char*>("-f"), const_cast<char*>("-l"), lib.data()};
    if (MSE_start(int(args.size()), args.data()) != MSE_RUNNING) return false;
    MSY_remove_signal_handlers();  // crashes are the fuzzer's to report
    MSY_output = std::fopen("/dev/null", "w");
    // As a session with Maxmem: a text that asks for more (`x $ i = 1..3e10` in a `%if`
    // condition) gets the out-of-memory error instead of exhausting the process.
    MMM_set_ceiling(uint64_t(512) << 20);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool started = start();
    if (!started) return 0;
    {
        MPA_tree_reader reader(std::string_view(reinterpret_cast<const char*>(data), size), true, 1);
        reader.run();
    }
    MER_pending = 0;
    MMM_reclaim();
    return 0;
}
