// A session stopped and started again in the same process. Its own program: the sessions
// it starts leave the process's hooks installed, which other tests must not meet.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "MMM_heap.h"
#include "MSE_session.h"

namespace {

const std::string lib_ok = std::string(TORVA_TEST_DATA) + "/lib_ok";

// An embedding application may stop its session and start another in the same process:
// the second finds the built-ins, the code table and the names in place again.
TEST(Session, ASecondSessionInTheSameProcessWorks) {
    const std::string path = "/tmp/torva-session-restart.txt";
    for (int round = 0; round < 2; ++round) {
        std::string program = "unit_tests";
        std::string lib = lib_ok;
        std::vector<char*> args = {program.data(), const_cast<char*>("-f"), const_cast<char*>("-l"), lib.data()};
        ASSERT_EQ(MSE_start(int(args.size()), args.data()), MSE_RUNNING) << "round " << round;
        FILE* out = std::fopen(path.c_str(), "w");
        ASSERT_NE(out, nullptr);
        MSY_output = out;
        MSE_post(new MSE_text_command("f := x -> x^2: f(3) + 1/2, bool(1 < 2), sin(x);", round));
        MSE_main_loop(false);
        MMM_reclaim();
        MSY_output = nullptr;
        std::fclose(out);
        MSE_stop(0, false);
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        EXPECT_EQ(text.str(), "19/2, TRUE, sin(x)\n") << "round " << round;
    }
    std::remove(path.c_str());
}

}  // namespace
