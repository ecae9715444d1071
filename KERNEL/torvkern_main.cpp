// torvkern: the kernel program. With /b it runs batch files; otherwise it is its own
// client on the terminal: read a command, run it, print.
#include <unistd.h>

#include <iostream>
#include <string>

#include "MSE_session.h"

int main(int argc, char** argv) {
    const MSE_start_result started = MSE_start(argc, argv);
    if (started == MSE_RUNNING) {
        const bool tty = ::isatty(0);
        std::string line;
        long id = 0;
        while (MSE_session.control_state != 2) {
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
}
