// Errors, traps, the tick and the environment variables in a live session, where the
// language alone cannot look: elapsed time, the tick's limits, snapshots, frames.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "MAR_numbers.h"
#include "MER_error.h"
#include "MEV_env.h"
#include "MEV_eval.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The value of a statement, dumped; "Error N" when it raised.
std::string dump_tree(Cell v) { return MPA_dump(v); }

std::string eval(std::string_view text) { return eval_shown(text, dump_tree, false, false); }

size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

TEST(Errors, AnInnerTimeLimitIsChargedToTheOuterOne) {
    const long start = MSY_monotonic_ms();
    EXPECT_EQ(eval("traperror((t_r := traperror((while TRUE do end_while), 1); while TRUE do end_while), 2)"),
              "1320");
    const long elapsed = MSY_monotonic_ms() - start;
    EXPECT_EQ(eval("t_r"), "1320");
    EXPECT_GE(elapsed, 1900);
    EXPECT_LT(elapsed, 2700) << "the outer limit ran on from its own start, not from the inner one's end";
    EXPECT_FALSE(MSY_time_limit_expired());
    EXPECT_EQ(MER_pending, 0);
    EXPECT_FALSE(MER_trapped);
    eval("delete t_r");
}

struct LimitsGuard {
    MSE_limits_record saved = MSE_limits;
    ~LimitsGuard() { MSE_limits = saved; }
};

TEST(Errors, TheTickRaisesTheWatchdogsOfTimeAndMemory) {
    LimitsGuard guard;
    MSE_limits.maxtime = 1;
    MSE_limits.command_start_ms = MSY_monotonic_ms() - 1000;
    EXPECT_EQ(eval("traperror((while TRUE do end_while))"), "1044");
    EXPECT_NE(MER_last_text.find("[watchdog-time]"), std::string::npos) << MER_last_text;
    MSE_limits.maxtime = 0;
    MSE_limits.maxmem = 1;
    EXPECT_EQ(eval("traperror((while TRUE do end_while))"), "1044");
    EXPECT_NE(MER_last_text.find("[watchdog-memory]"), std::string::npos) << MER_last_text;
    MSE_limits.maxmem = 0;
    EXPECT_EQ(eval("traperror(1)"), "0");
}

int callback_calls = 0;
void reentering_callback() {
    ++callback_calls;
    MSE_tick();  // a tick inside a tick does nothing
}

TEST(Errors, TheTickPrintsTheStatusLineOnTheWarningChannelAndCallsBack) {
    LimitsGuard guard;
    MSE_set_report(9);  // every third tick
    EXPECT_EQ(MSE_get_report(), 9);
    MSE_limits.callback = reentering_callback;
    callback_calls = 0;
    std::string out = capture_output([] {
        for (int i = 0; i < 9; ++i) MSE_tick();
    });
    EXPECT_EQ(count_of(out, "[used="), 3u) << out;
    EXPECT_EQ(callback_calls, 9);
    MOU_channel_format[MOU_WRN] = MOU_NUL;
    out = capture_output([] {
        for (int i = 0; i < 3; ++i) MSE_tick();
    });
    MOU_channel_format[MOU_WRN] = MOU_TXT;
    EXPECT_EQ(out, "") << "the status line goes on the warning channel";
    MSE_set_report(0);
    // After an error raised in the tick the guard is down again.
    MSE_limits.maxmem = 1;
    out = capture_output([] {
        EXPECT_THROW(MSE_tick(), MER_exception);
        MSE_recover(true);
    });
    EXPECT_EQ(out, "Error: Watchdog reset [watchdog-memory]\n");
    MSE_limits.maxmem = 0;
    callback_calls = 0;
    MSE_tick();
    EXPECT_EQ(callback_calls, 1);
}

TEST(Errors, ReportsGoThroughTheirChannels) {
    MOU_channel_format[MOU_ERR] = MOU_NUL;
    std::string out = capture_output([] { eval("error(\"quiet\")"); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(MER_last_text, "Error: quiet") << "the report is kept although not printed";
    out = capture_output([] { eval("warning(\"loud\")"); });
    MOU_channel_format[MOU_ERR] = MOU_TXT;
    EXPECT_EQ(out, "Warning: loud\n");
}

TEST(Errors, ASnapshotPutsTheSettingsBackAndReleasesWhatItHeld) {
    Cell frame = MMM_frame_new(MMM_root_frame, MMM_NIL);
    const uint32_t root_count = MMM_root_frame->refcount;
    MER_snapshot_record s;
    MER_snapshot(s);
    EXPECT_EQ(MMM_root_frame->refcount, root_count + 1);

    MAR_set_digits(40);
    MOU_set_textwidth(30);
    MEV_level = 7;
    MEV_order = 3;
    MOU_pretty = false;
    MOU_channel_format[MOU_RES] = MOU_NUL;
    Cell read_path = MMM_make_string("r/");
    std::swap(MEV_read_path, read_path);
    Cell saved_current = MMM_current_frame;
    MMM_release(MMM_current_frame);  // the snapshot keeps it alive
    MMM_retain(frame);
    MMM_current_frame = frame;
    const uint32_t frame_count = frame->refcount;

    MER_restore(s);
    EXPECT_EQ(MAR_digits, 10);
    EXPECT_EQ(MOU_textwidth, 75);
    EXPECT_EQ(MEV_level, 100);
    EXPECT_EQ(MEV_order, 6);
    EXPECT_TRUE(MOU_pretty);
    EXPECT_EQ(MOU_channel_format[MOU_RES], MOU_TXT);
    EXPECT_EQ(MEV_read_path, nullptr);
    EXPECT_EQ(MMM_current_frame, saved_current);
    EXPECT_EQ(frame->refcount, frame_count - 1) << "the frame that replaced the current one is released";
    MER_free_snapshot(s);
    EXPECT_EQ(MMM_root_frame->refcount, root_count);
    MMM_release(frame);
}

TEST(Errors, ADeletionShowsTheSetterTheValueOfTheFrameAbove) {
    Cell digits = MMM_ident_named("DIGITS");
    Cell frame = MMM_frame_new(MMM_root_frame, MMM_NIL);
    Cell twenty = MAR_from_long(20), thirty = MAR_from_long(30);
    MMM_release(MMM_set_value(digits, twenty, 0, MMM_root_frame));
    EXPECT_EQ(MAR_digits, 20);
    Cell saved_current = MMM_current_frame;
    MMM_current_frame = frame;
    MMM_release(MMM_set_value(digits, thirty, 0, frame));
    EXPECT_EQ(MAR_digits, 30);
    Cell in_frame = MMM_value_in(digits, frame, false);
    ASSERT_TRUE(in_frame && MMM_is_node(in_frame, DOM_INT));
    EXPECT_EQ(MAR_small_int(in_frame), 30) << "the binding holds what the setter gave";
    MMM_release(in_frame);
    MMM_release(MMM_set_value(digits, nullptr, 0, frame));
    EXPECT_EQ(MAR_digits, 20) << "after the deletion the root frame's value is in force";
    MMM_current_frame = saved_current;
    MMM_release(MMM_set_value(digits, nullptr, 0, MMM_root_frame));
    EXPECT_EQ(MAR_digits, 10);
    for (Cell c : {digits, frame, twenty, thirty}) MMM_release(c);
}

TEST(Errors, AProtectionErrorLeavesTheSettingAsItWas) {
    EXPECT_EQ(eval("protected(DIGITS, Error)"), "None");
    EXPECT_EQ(capture_output([] { EXPECT_EQ(eval("DIGITS := 30"), "Error 1046"); }),
              "Error: Identifier 'DIGITS' is protected [_assign]\n");
    EXPECT_EQ(MAR_digits, 10) << "the setter did not run";
    EXPECT_EQ(eval("protected(DIGITS, None)"), "Error");
}

TEST(Errors, CellsHeldWhereAnErrorPassesAreReleased) {
    // Each statement raises half-way through work that holds counted cells: a sum or a
    // list with operands already evaluated, a loop's bounds and counter, the arguments
    // of a call, an index being written, a sequence and a table being built. Nothing is
    // swept in between, so a count left behind stays a live cell.
    eval("t_ok := x -> x + 1: t_bad := proc(x) begin error(\"bad\") end_proc: "
         "t_wrap := proc(a) begin a + t_bad(a) end_proc: t_list := [1, 2]");
    const char* trapped =
        "traperror(t_ok(1) + t_ok(2) + t_bad(3)), traperror([t_ok(1), t_bad(2)]), "
        "traperror((for t_i from 0.5 to 3 do t_bad(t_i) end_for)), traperror((t_list[t_bad(1)] := 2)), "
        "traperror(t_wrap(1, 2, 3)), traperror((t_ok(t_i) + t_bad(t_i) $ t_i = 1..3)), "
        "traperror(table(1 = t_ok(1), 2 = t_bad(2)))";
    const std::string all_raised = "_exprseq(1028, 1028, 1028, 1028, 1028, 1028, 1028)";
    ASSERT_EQ(eval(trapped), all_raised);
    const uint64_t before = MMM_live_cells();
    for (int i = 0; i < 20; ++i) EXPECT_EQ(eval(trapped), all_raised);
    EXPECT_EQ(MMM_live_cells(), before);
    EXPECT_EQ(eval("t_list"), "DOM_LIST(1, 2)");
    eval("delete t_ok, t_bad, t_wrap, t_list, t_i");
}

}  // namespace
