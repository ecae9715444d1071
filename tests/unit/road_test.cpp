// The road of one command through a session started in this process, with a stand-in
// front end: statements are the pieces of the text between ';', each evaluates to a
// string cell, and printing collects the texts.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "MER_error.h"
#include "MMM_heap.h"
#include "MMM_values.h"
#include "MSE_session.h"

namespace {

std::vector<std::string> printed;
std::vector<long> finished;
std::vector<Cell> hoard;  // cells held where no root reaches them

void split_run(std::string_view text) {
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(';', start);
        if (end == std::string_view::npos) end = text.size();
        Cell stmt = MMM_make_string(text.substr(start, end - start));
        MMM_release(MSE_toplevel_eval(stmt, true));
        MMM_release(stmt);
        start = end + 1;
    }
}

Cell eval_string(Cell stmt) {
    const std::string s(MMM_string_view(MMM_child(stmt, 0)));
    if (s == "fail") MER_raise(1028, "it failed");
    if (s == "stop") {
        MSY_interrupt_pending = 1;
        MSE_poll();
    }
    if (s == "grow") {
        MMM_set_ceiling(MMM_used_bytes() + 2000000);
        for (;;) hoard.push_back(MMM_new(MMM_TEXT, 1000, 0));
    }
    return MMM_make_string("value of " + s);
}

void print_string(Cell v) { printed.emplace_back(MMM_string_view(MMM_child(v, 0))); }
void note_finished(long id, void*) { finished.push_back(id); }

std::string run_command(const std::string& text, long id) {
    // The stand-in front end takes the place of parser, evaluator and printer.
    const MSE_frontend_hooks saved = MSE_frontend;
    MSE_frontend.run_text = split_run;
    MSE_frontend.eval = eval_string;
    MSE_frontend.print_result = print_string;
    printed.clear();
    FILE* out = std::tmpfile();
    MSY_output = out;
    MSE_post(new MSE_text_command(text, id, note_finished));
    MSE_main_loop(false);
    MSY_output = stdout;
    MSE_frontend = saved;
    std::rewind(out);
    std::string text_out;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, out)) > 0) text_out.append(buf, n);
    std::fclose(out);
    return text_out;
}

TEST(Road, StatementsAreEvaluatedAndPrintedInOrder) {
    const std::string out = run_command("a;b", 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(printed, (std::vector<std::string>{"value of a", "value of b"}));
    ASSERT_FALSE(finished.empty());
    EXPECT_EQ(finished.back(), 1);
}

TEST(Road, AnErrorEndsTheCommandAndTheSessionGoesOn) {
    const std::string out = run_command("a;fail;c", 2);
    EXPECT_EQ(out, "Error: it failed\n");
    EXPECT_EQ(printed, (std::vector<std::string>{"value of a"}));
    EXPECT_EQ(finished.back(), 2) << "a command that failed still finishes";
    EXPECT_EQ(MER_pending, 0);
    EXPECT_EQ(MER_last, 1028);

    run_command("d", 3);
    EXPECT_EQ(printed, (std::vector<std::string>{"value of d"}));
}

TEST(Road, AnInterruptAbortsTheComputation) {
    const std::string out = run_command("stop;after", 4);
    EXPECT_EQ(out, "Error: Computation aborted\n");
    EXPECT_TRUE(printed.empty());
    EXPECT_EQ(MSY_interrupt_pending, 0);
}

TEST(Road, OutOfMemoryFreesTheTemporariesBeforeItIsReported) {
    const uint64_t before = MMM_used_bytes();
    const std::string out = run_command("grow", 5);
    MMM_set_ceiling(0);
    EXPECT_EQ(out, "Error: Out of memory\n");
    EXPECT_FALSE(hoard.empty());
    EXPECT_LT(MMM_used_bytes(), before + 100000) << "the hoarded cells were swept";
    hoard.clear();
    // The session still works.
    run_command("e", 6);
    EXPECT_EQ(printed, (std::vector<std::string>{"value of e"}));
}

}  // namespace
