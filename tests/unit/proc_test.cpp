// Procedures in a live session: what the language tests cannot see, the layout of an
// activation, what is freed when a call ends, the settings of warnings, type tests and
// remember tables, the state an error leaves, and 1000 nested calls.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "MCM_equal.h"
#include "MER_error.h"
#include "MEV_eval.h"
#include "MEV_proc.h"
#include "MFN_table.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The value of statements at the top level (owned), or null after an error, whose number
// goes to *code.
Cell value_of(std::string_view text, long* code = nullptr) {
    MPA_tree_reader r(text, false, 1);
    r.run();
    Cell t = r.take_result();
    if (!t) {
        if (code) *code = -1;
        return nullptr;
    }
    Cell v = nullptr;
    try {
        v = MSE_frontend.eval(t);
    } catch (const MER_exception& e) {
        if (code) *code = e.code;
        MSE_recover(true);
    }
    MMM_release(t);
    return v;
}

// The printed value, or "Error N".
std::string run(std::string_view text) {
    long code = 0;
    Cell v = value_of(text, &code);
    if (!v) return "Error " + std::to_string(code);
    std::string s = MOU_to_text(v);
    MMM_release(v);
    return s;
}

std::string quiet_run(std::string_view text) {
    std::string r;
    capture_output([&] { r = run(text); });
    return r;
}

bool is_cat(Cell c, int category) { return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == category; }

TEST(Proc, AnActivationHoldsLocalsBeforeArguments) {
    quiet_run("t_pa := proc(a) local u, v; save t_s1, t_s2; option escape; begin u := 11; _act_proc_env() end_proc");
    Cell env = value_of("t_pa(7, 8, 9)");
    ASSERT_TRUE(is_cat(env, DOM_PROC_ENV));
    Cell a = MMM_child(env, 0);
    ASSERT_EQ(MMM_kind_of(a), MMM_PROC_ENV);
    const int32_t* w = MEV_activation_words(a);
    const long first = w[MEV_AW_FIRST_SLOT];
    EXPECT_EQ(first, MEV_AC_SAVED + 4) << "two cells for each saved name";
    EXPECT_EQ(w[MEV_AW_FIRST_ARG], first + 2 + 2) << "call name, dom, two locals, then the arguments";
    EXPECT_EQ(w[MEV_AW_ARG_COUNT], 3);
    EXPECT_EQ(MMM_child_count(a), w[MEV_AW_FIRST_ARG] + 3) << "surplus arguments have slots of their own";
    EXPECT_TRUE(is_cat(MMM_child(a, MEV_AC_PROC), DOM_PROC));
    EXPECT_EQ(MMM_ident_text(MMM_child(a, first)), "t_pa");
    EXPECT_EQ(MMM_child(a, first + 1), MMM_NIL) << "dom of a procedure outside a domain";
    EXPECT_EQ(MOU_to_text(MMM_child(a, first + 2)), "11");
    EXPECT_EQ(MMM_child(a, first + 3), nullptr) << "a local never assigned";
    for (long i = 0; i < 3; ++i) EXPECT_EQ(MOU_to_text(MMM_child(a, w[MEV_AW_FIRST_ARG] + i)), std::to_string(7 + i));
    // The escape kept the slots and dropped the caller, the ring and the saved names.
    for (long i = MEV_AC_CALLER; i < first; ++i) EXPECT_EQ(MMM_child(a, i), nullptr) << i;
    MMM_release(env);
    quiet_run("delete t_pa");
}

TEST(Proc, ActivationsAreFreedWhenTheCallEnds) {
    // A local closure makes a cycle through the activation; the end of the call breaks it.
    quiet_run("t_lc := proc(x) local a, b, g; begin a := [x, x]; b := a; a[1] := 0; g := y -> y + a[2]; g(b[1]) end_proc");
    EXPECT_EQ(quiet_run("t_lc(5)"), "10");
    const uint64_t before = MMM_live_cells();
    for (int i = 0; i < 50; ++i) quiet_run("t_lc(5)");
    EXPECT_EQ(MMM_live_cells(), before);
    quiet_run("delete t_lc");
}

TEST(Proc, DeadClosuresAreReportedWhenAsked) {
    quiet_run("t_mk := proc(x) begin y -> x + y end_proc: t_me := proc(x) option escape; begin y -> x + y end_proc");
    MEV_warn_dead_closure = true;
    std::string r;
    std::string out = capture_output([&] { r = run("t_mk(1)(2)"); });
    EXPECT_NE(out.find("Warning: Found dead closure of procedure 't_mk'"), std::string::npos) << out;
    EXPECT_NE(out.find("Illegal variable context"), std::string::npos) << out;
    EXPECT_EQ(r, "Error 1114");
    out = capture_output([&] { r = run("t_me(1)(2)"); });
    EXPECT_EQ(out, "");
    EXPECT_EQ(r, "3");
    MEV_warn_dead_closure = false;
    out = capture_output([&] { r = run("t_mk(1)"); });
    EXPECT_EQ(out, "") << "off at start";
    quiet_run("delete t_mk, t_me");
}

TEST(Proc, UninitializedLocalsWarnOnceAndCanBeQuiet) {
    quiet_run("t_un := proc() local a; begin [a, a] end_proc");
    std::string r;
    std::string out = capture_output([&] { r = run("t_un()"); });
    EXPECT_EQ(r, "[NIL, NIL]");
    size_t first = out.find("Uninitialized variable 'a' used");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_EQ(out.find("Uninitialized", first + 1), std::string::npos) << "one warning for two reads";
    MEV_warn_uninitialized = false;
    out = capture_output([&] { r = run("t_un()"); });
    MEV_warn_uninitialized = true;
    EXPECT_EQ(out, "");
    EXPECT_EQ(r, "[NIL, NIL]");
    quiet_run("delete t_un");
}

TEST(Proc, ThousandNestedCallsWithMaxDepth1000) {
    quiet_run("t_deep := proc(n) begin if n = 1 then 1 else t_deep(n - 1) + 1 end_if end_proc");
    const int32_t saved = MEV_max_depth;
    MEV_max_depth = 1000;
    EXPECT_EQ(quiet_run("t_deep(1000)"), "1000");
    std::string out = capture_output([&] { EXPECT_EQ(run("t_deep(1001)"), "Error 1010"); });
    EXPECT_NE(out.find("Recursive definition [See ?MAXDEPTH]"), std::string::npos) << out;
    MEV_max_depth = saved;
    EXPECT_EQ(quiet_run("t_deep(501)"), "Error 1010");
    quiet_run("delete t_deep");
}

TEST(Proc, AnErrorLeavesTheEvaluatorAsItWasAtTheCall) {
    quiet_run("t_in := proc(n) begin 1/n end_proc: t_out := proc(n) local a; begin a := n; t_in(0) end_proc");
    Cell t = nullptr;
    {
        MPA_tree_reader r("t_out(1)", false, 1);
        r.run();
        t = r.take_result();
    }
    ASSERT_TRUE(t);
    const bool trapped = MER_trapped;
    MER_trapped = true;
    const int32_t level = MEV_level;
    long code = 0;
    try {
        MMM_release(MEV_eval(t, MEV_CONTEXT_ARGUMENT, 0));
    } catch (const MER_exception& e) {
        code = e.code;
        // Seen before any catcher puts anything right.
        EXPECT_EQ(MEV_frame, nullptr);
        EXPECT_EQ(MEV_call_depth, 0);
        EXPECT_EQ(MEV_level, level);
        EXPECT_EQ(MEV_depth, 0);
        EXPECT_EQ(MEV_type_check, 2);
    }
    MER_trapped = trapped;
    MSE_recover(true);
    EXPECT_EQ(code, 1025);
    MMM_release(t);
    quiet_run("delete t_in, t_out");
}

TEST(Proc, TypeTestsFollowTheirSetting) {
    quiet_run("t_ti := proc(x : DOM_INT) begin x end_proc: t_to := proc() begin t_ti(\"s\") end_proc");
    EXPECT_EQ(quiet_run("t_to()"), "\"s\"") << "an inner call is not tested at the start setting";
    EXPECT_EQ(quiet_run("t_ti(\"s\")"), "Error 1028");
    MEV_type_check = 1;
    EXPECT_EQ(quiet_run("t_to()"), "Error 1028");
    MEV_type_check = 0;
    EXPECT_EQ(quiet_run("t_ti(\"s\")"), "\"s\"");
    MEV_type_check = 2;
    quiet_run("delete t_ti, t_to");
}

void set_exclusion(Cell x) {
    MMM_retain(x);
    MMM_release(MEV_remember_exclusion);
    MEV_remember_exclusion = x;
}

TEST(Proc, RememberTablesFollowTheExclusionSetting) {
    quiet_run("t_rc := 0: t_rm := proc(n) option remember; begin t_rc := t_rc + 1; n end_proc");
    EXPECT_EQ(quiet_run("t_rm(1), t_rm(1), t_rc"), "1, 1, 1");
    set_exclusion(MMM_TRUE);
    EXPECT_EQ(quiet_run("t_rm(2), t_rm(2), t_rc"), "2, 2, 3") << "no table is used";
    Cell list = value_of("[hold(t_rm)]");
    set_exclusion(list);
    EXPECT_EQ(quiet_run("t_rm(3), t_rm(3), t_rc"), "3, 3, 5") << "a procedure named in the list";
    MMM_release(list);
    list = value_of("[hold(t_other)]");
    set_exclusion(list);
    EXPECT_EQ(quiet_run("t_rm(4), t_rm(4), t_rc"), "4, 4, 6");
    MMM_release(list);
    set_exclusion(MMM_FALSE);
    quiet_run("delete t_rc, t_rm");
}

TEST(Proc, ElementWritesKeepTheListsSignature) {
    quiet_run("t_fill := proc(n) local L, i; begin L := [0 $ n]; for i from 1 to n do L[i] := i^2 end_for; L end_proc");
    Cell a = value_of("t_fill(40)");
    Cell b = value_of("[i^2 $ i = 1..40]");
    ASSERT_TRUE(is_cat(a, DOM_LIST));
    ASSERT_TRUE(is_cat(b, DOM_LIST));
    EXPECT_EQ(a->signature, b->signature);
    EXPECT_TRUE(MCM_equal(a, b));
    MMM_release(a);
    MMM_release(b);
    quiet_run("delete t_fill");
}

// A reader whose statements stay trees.
struct LocalTrees : MPA_local_string_reader {
    using MPA_local_string_reader::MPA_local_string_reader;
    bool immediate() override { return false; }
};

TEST(Proc, TextReadInsideAProcedureSeesItsLocals) {
    Cell env = value_of("(proc(a) local u; option escape; begin u := 1; _act_proc_env() end_proc)(5)");
    ASSERT_TRUE(is_cat(env, DOM_PROC_ENV));
    Cell saved = MEV_frame;
    MEV_frame = MMM_child(env, 0);
    LocalTrees r("u + a + g", false, 1);
    r.run();
    Cell t = r.take_result();
    ASSERT_TRUE(t);
    EXPECT_EQ(MPA_dump(t), "_plus(DOM_VAR(0, 2), DOM_VAR(0, 3), g)");
    EXPECT_EQ(MOU_to_text(t), "u + a + g") << "the printer names the locals of the running procedure";
    Cell v = MEV_eval(t, MEV_CONTEXT_ARGUMENT, 0);
    EXPECT_EQ(MOU_to_text(v), "g + 6");
    MEV_frame = saved;
    MMM_release(v);
    MMM_release(t);
    MMM_release(env);
}

TEST(Proc, EvalEntryRunsInAStoredActivation) {
    Cell env = value_of("(proc() local u; option escape; begin u := 41; _act_proc_env() end_proc)()");
    ASSERT_TRUE(is_cat(env, DOM_PROC_ENV));
    Cell a = MMM_child(env, 0);
    Cell domain = MMM_new_node(DOM_DOMAIN, 0);
    MMM_sign(domain);
    // _eval_entry(hold([u, dom]), D, env), with the locals as the parser makes them.
    Cell x = MMM_make_list(2);
    MMM_children(x)[0] = MMM_var(0, 2);
    MMM_children(x)[1] = MMM_var(0, 1);
    MMM_retain(MMM_child(x, 0));
    MMM_retain(MMM_child(x, 1));
    MMM_sign(x);
    Cell held = MMM_make_expr(2);
    MMM_children(held)[0] = MMM_ident_by_id(MFN_ID_HOLD);
    MMM_retain(MMM_child(held, 0));
    MMM_children(held)[1] = x;
    MMM_sign(held);
    Cell call = MMM_make_expr(4);
    Cell ops[] = {MMM_ident_by_id(MFN_ID_EVAL_ENTRY), held, domain, env};
    for (int i = 0; i < 4; ++i) {
        MMM_retain(ops[i]);
        MMM_children(call)[i] = ops[i];
    }
    MMM_sign(call);
    Cell v = MEV_eval(call, MEV_CONTEXT_ARGUMENT, 0);
    ASSERT_TRUE(is_cat(v, DOM_LIST));
    EXPECT_EQ(MOU_to_text(MMM_child(v, 0)), "41");
    EXPECT_EQ(MMM_child(v, 1), domain);
    const long first = MEV_activation_words(a)[MEV_AW_FIRST_SLOT];
    EXPECT_EQ(MMM_child(a, first + 1), MMM_NIL) << "dom is put back";
    EXPECT_EQ(MEV_frame, nullptr);
    EXPECT_EQ(quiet_run("_eval_entry(1, 2, 3)"), "Error 1005");
    for (Cell c : {v, call, held, domain, env}) MMM_release(c);
}

}  // namespace
