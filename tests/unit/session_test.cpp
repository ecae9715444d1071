// The session as the kernel program runs it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "run_program.h"

namespace {

const std::string data = TORVA_TEST_DATA;
const std::string lib_ok = data + "/lib_ok";

// A start that cannot read its system init file ends with code 1 and writes nothing on
// the standard output, which may be a batch run's result: the reason and the fatal text
// go to the standard error stream.
TEST(Session, MissingSystemInitFileIsFatal) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"-l", "/nonexistent", "-b", "-"},
                                                                  {"-l", "/nonexistent"}}) {
        const ProgramRun r = run_torvkern(args, "print(1);\n");
        EXPECT_EQ(r.exit_code, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "Error: Can't read from file \"/nonexistent/sysinit.tv\"\n"
                         "Could not read system init file '/nonexistent/sysinit.tv'\n");
    }
}

TEST(Session, AnErrorInTheSystemInitFileIsFatal) {
    const ProgramRun r = run_torvkern({"-l", data + "/lib_bad", "-b", "-"}, "print(1);\n");
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "Error: file " + data + "/lib_bad/sysinit.tv, line 1, col 1: Unexpected ')'\n"
                     "Could not read system init file '" + data + "/lib_bad/sysinit.tv'\n");
}

TEST(Session, FreshBuildFindsItsLibraryWithoutOptions) {
    const ProgramRun r = run_torvkern({"-b", "-", data + "/batch/empty.tv"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST(Session, AnErrorInTheUserInitFileIsReportedAndStartGoesOn) {
    const ProgramRun r = run_torvkern({"-l", lib_ok, "-u", data + "/user_bad", "-b", "-", data + "/batch/empty.tv"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, "Error: file " + data + "/user_bad/userinit.tv, line 1, col 1: Unexpected ')'\n");
    // A missing user init file says nothing.
    const ProgramRun quiet = run_torvkern({"-l", lib_ok, "-u", "/nonexistent/userinit.tv", "-b", "-"});
    EXPECT_EQ(quiet.exit_code, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
}

TEST(Session, ABatchFileThatFailsLetsTheNextRunAndFailsTheRun) {
    const ProgramRun r = run_torvkern({"-l", lib_ok, "-b", "-", data + "/batch/empty.tv", "missing1.tv", "missing2.tv"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.out, "Error: Can't read from file \"missing1.tv\"\nError: Can't read from file \"missing2.tv\"\n");
    EXPECT_EQ(r.err, "Read error while reading batch input file(s).\n");
}

TEST(Session, BatchOutputFileTakesResultsAndTheFatalText) {
    const std::string out = "/tmp/torva-session-test-out.txt";
    std::remove(out.c_str());
    const ProgramRun r = run_torvkern({"-l", lib_ok, "-b", out, "missing.tv"});
    EXPECT_EQ(r.exit_code, 1);
    EXPECT_EQ(r.out, "");
    std::ifstream in(out);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(),
              "Error: Can't read from file \"missing.tv\"\n"
              "Fatal Error: Read error while reading batch input file(s).\n");
    std::remove(out.c_str());

    const ProgramRun bad = run_torvkern({"-l", lib_ok, "-b", "/nonexistent/dir/out.txt"});
    EXPECT_EQ(bad.exit_code, 1);
    EXPECT_EQ(bad.err, "Could not open output file.\n");
}

TEST(Session, WatchdogEndsASessionThatWaitsTooLong) {
    const TimedRun r = run_torvkern_waiting({"-l", lib_ok, "-w", "1"}, 10.0);
    EXPECT_EQ(r.exit_code, 2);
    EXPECT_GE(r.seconds, 1.0);
}

TEST(Session, TerminalSessionEndsCleanlyAtEndOfInput) {
    const ProgramRun r = run_torvkern({"-l", lib_ok}, "\n// a comment\n");
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, "");
}

// On the terminal, `quit` ends the session after its line, and CallOnExit runs at the end
// whether the input ran out or quit ended it.
TEST(Session, TerminalSessionRunsCallOnExitAtTheEnd) {
    const std::string hook = "_pref(CallOnExit = proc() begin print(\"bye\") end_proc):\n";
    const ProgramRun ended = run_torvkern({"-l", lib_ok}, hook + "1 + 1;\n");
    EXPECT_EQ(ended.exit_code, 0);
    EXPECT_EQ(ended.out, "2\n\"bye\"\n");
    const ProgramRun quit = run_torvkern({"-l", lib_ok}, hook + "quit; 3;\n4;\n");
    EXPECT_EQ(quit.exit_code, 0);
    EXPECT_EQ(quit.out, "\"bye\"\n");
}

}  // namespace

