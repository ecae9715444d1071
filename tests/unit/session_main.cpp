// main of the test programs that need a whole session in their own process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MSE_session.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string program = argv[0];
    std::string lib = std::string(TORVA_TEST_DATA) + "/lib_ok";
    std::vector<char*> args = {program.data(), const_cast<char*>("-f"), const_cast<char*>("-l"), lib.data()};
    if (MSE_start(int(args.size()), args.data()) != MSE_RUNNING) return 1;
    return RUN_ALL_TESTS();
}
