// torvkern: the kernel program. With /b it runs batch files; otherwise it is its own
// client on the terminal: read a command, run it, print.
#include <pthread.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "MSE_session.h"

namespace {

struct Arguments {
    int argc;
    char** argv;
};

void* kernel_main(void* p) {
    const auto* a = static_cast<Arguments*>(p);
    const MSE_start_result started = MSE_start(a->argc, a->argv);
    if (started == MSE_RUNNING) {
        const bool tty = ::isatty(0);
        std::string line;
        long id = 0;
        while (MSE_session.control_state != MSE_CONTROL_ENDING) {
            if (tty && MSE_pref.prompt) {
                std::fputs(">> ", stdout);
                std::fflush(stdout);
            }
            if (!std::getline(std::cin, line)) break;
            MSE_post(new MSE_text_command(line, ++id));
            MSE_main_loop(false);
        }
        if (tty) std::fputc('\n', stdout);
    }
    MSE_stop(0, true);
    return nullptr;
}

}  // namespace

// The kernel runs on a thread of its own with a large stack: evaluation and printing
// recurse over deep expressions.
int main(int argc, char** argv) {
    Arguments args{argc, argv};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, size_t(1) << 30);
    pthread_t thread;
    if (pthread_create(&thread, &attr, kernel_main, &args) != 0) kernel_main(&args);
    else pthread_join(thread, nullptr);
    return 0;
}
