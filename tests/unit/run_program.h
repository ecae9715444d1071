// Runs the kernel program and collects what it prints.
#pragma once

#include <string>
#include <vector>

struct ProgramRun {
    int exit_code;
    std::string out;  // standard output
    std::string err;  // standard error
};

ProgramRun run_torvkern(const std::vector<std::string>& args, const std::string& input = "");

// Runs the kernel program with a standard input that stays open and silent, and gives
// its exit code (or -1 if it was still running after `limit_seconds` and was killed)
// and how long it ran.
struct TimedRun {
    int exit_code;
    double seconds;
};
TimedRun run_torvkern_waiting(const std::vector<std::string>& args, double limit_seconds);
