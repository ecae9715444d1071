// The evaluation core in a live session: parsed text evaluated as a statement.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MER_error.h"
#include "MEV_eval.h"
#include "MFN_layout.h"
#include "MMM_heap.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The value of a statement, dumped; "Error N: text" when it raised.
std::string dump_tree(Cell v) { return MPA_dump(v); }

std::string eval(std::string_view text) { return eval_shown(text, dump_tree, true, true); }

void set(const char* name, std::string_view value_text) {
    Cell id = MMM_ident_named(name);
    Cell v = parse_text(value_text);
    MMM_release(MMM_set_value(id, v, 0, MMM_root_frame));
    MMM_release(v);
    MMM_release(id);
}

void unset(const char* name) {
    Cell id = MMM_ident_named(name);
    MMM_release(MMM_set_value(id, nullptr, 0, MMM_root_frame));
    MMM_release(id);
}

TEST(Eval, IdentifiersAndLevels) {
    EXPECT_EQ(eval("t_unbound"), "t_unbound");
    set("t_a", "t_h(t_b)");
    set("t_b", "2");
    EXPECT_EQ(eval("t_a"), "t_h(2)") << "values are evaluated again, up to LEVEL";
    EXPECT_EQ(eval("hold(t_a)"), "t_a");
    const int32_t level = MEV_level;
    MEV_level = 1;
    EXPECT_EQ(eval("t_a"), "t_h(t_b)");
    MEV_level = level;
    set("t_x", "t_y");
    set("t_y", "t_x");
    EXPECT_EQ(eval("t_x"), "Error 1010: Error: Recursive definition [See ?MAXLEVEL]");
    EXPECT_EQ(MEV_depth, 0) << "the depth is back after the error";
    for (const char* n : {"t_a", "t_b", "t_x", "t_y"}) unset(n);
}

TEST(Eval, SequencesSpliceAndNullVanishes) {
    EXPECT_EQ(eval("_exprseq()"), "NULL");
    EXPECT_EQ(eval("_exprseq(1)"), "1");
    EXPECT_EQ(eval("_exprseq(1, 2)"), "_exprseq(1, 2)");
    EXPECT_EQ(eval("f((1, 2), 3)"), "f(1, 2, 3)");
    EXPECT_EQ(eval("f(null())"), "f()");
    EXPECT_EQ(eval("[1, null(), (2, 3)]"), "DOM_LIST(1, 2, 3)");
    EXPECT_EQ(eval("f(g(x), [h(y)])"), "f(g(x), DOM_LIST(h(y)))");
}

TEST(Eval, CallsByTheOperatorsValue) {
    EXPECT_EQ(eval("2(x)"), "2");
    EXPECT_EQ(eval("PI(1)"), "PI");
    EXPECT_EQ(eval("(f + g)(x)"), "_plus(f, g)(x)");
    set("t_f", "g");
    EXPECT_EQ(eval("t_f(1)"), "g(1)");
    unset("t_f");
}

TEST(Eval, LegalityRefusesOperandsBeforeAnyOperatorRuns) {
    EXPECT_EQ(eval("1 and 2"), "Error 1001: Error: Illegal operand [_and]");
    EXPECT_EQ(eval("x and 2"), "Error 1001: Error: Illegal operand [_and]");
    EXPECT_EQ(eval("\"a\" < x"), "_less(\"a\", x)");
    EXPECT_EQ(eval("[1] < 2"), "Error 1001: Error: Illegal operand [_less]");
    EXPECT_EQ(MEV_legality(24, 30 + DOM_STRING), 1001);
    EXPECT_EQ(MEV_legality(15, 2), 1001) << "an unevaluated or is no summand";
    EXPECT_EQ(MEV_legality(15, 5), 0);
    EXPECT_EQ(eval("1 < 2 + (a or b)"), "Error 1001: Error: Illegal operand [_plus]");
}

TEST(Eval, FunctionEnvironments) {
    Cell plus = MMM_ident_by_id(15);
    Cell env = MMM_value(plus);
    ASSERT_NE(env, nullptr);
    EXPECT_EQ(MMM_category(env), DOM_FUNC_ENV);
    EXPECT_EQ(MMM_category(MMM_child(env, MFN_ENV_EVALUATOR)), DOM_EXEC);
    Cell type = nullptr;
    Cell key = MMM_string_value("type");
    EXPECT_TRUE(MMM_table_find(MMM_child(MMM_child(env, MFN_ENV_ATTRIBUTES), MMM_TABLE_HASH), key, &type));
    EXPECT_EQ(MPA_dump(type), "\"_plus\"");
    MMM_release(key);
    EXPECT_EQ(MMM_protection(plus), 4) << "operators are bound at kernel protection";
    Cell one = parse_text("1");
    EXPECT_THROW(MMM_set_value(plus, one, 4, MMM_root_frame), MER_exception);
    MER_pending = 0;
    MMM_release(one);

    Cell same = parse_text("funcenv(_plus)");
    Cell v = MSE_frontend.eval(same);
    EXPECT_EQ(v, env) << "funcenv of an environment is that environment";
    MMM_release(v);
    MMM_release(same);
    MMM_release(env);
    EXPECT_EQ(eval("funcenv(t_fn)(x)"), "t_fn(x)") << "an environment calls through its evaluator";
    EXPECT_EQ(eval("funcenv(t_fn, t_pr, 3)"), "Error 1001: Error: Illegal operand [funcenv]");
    EXPECT_EQ(eval("funcenv()"), "Error 1004: Error: Wrong number of arguments [funcenv]");
    EXPECT_EQ(eval("builtin(1062, NIL, \"sysorder\", NIL)"), "DOM_EXEC(<kind 41>, NIL, \"sysorder\", NIL)");
    EXPECT_EQ(eval("builtin(99999, NIL, \"x\", NIL)"), "Error 1005: Error: Illegal argument [builtin]");
    EXPECT_EQ(eval("builtin(x, NIL, \"x\", NIL)"), "Error 1013: Error: Integer expected [builtin]");
    EXPECT_EQ(eval("builtin(1062, NIL, \"x\")"), "Error 1004: Error: Wrong number of arguments [builtin]");
    EXPECT_EQ(eval("_op_plusmult(t_op, 1, 2)"), "t_op(1, 2)");
    EXPECT_EQ(eval("_op_fconcat(t_f, t_g, x)"), "t_f(t_g(x))");
    EXPECT_EQ(eval("_domainfunccall(1, 2)"), "Error 1005: Error: Illegal argument [_domainfunccall]");
}

TEST(Eval, ConstantCallsAllocateNothing) {
    Cell t = parse_text("t_g(1, 2, 3)");
    Cell v = MSE_frontend.eval(t);  // the identifiers are made; now measure
    MMM_release(v);
    const uint64_t cells = MMM_live_cells();
    v = MSE_frontend.eval(t);
    EXPECT_EQ(v, t) << "a value whose evaluation changes nothing is the same cell";
    EXPECT_EQ(MMM_live_cells(), cells);
    MMM_release(v);
    MMM_release(t);
}

TEST(Eval, DeepExpressionsGiveAnErrorNotAStackOverflow) {
    Cell e = parse_text("x");
    Cell neg = MMM_ident_by_id(27);
    for (int i = 0; i < 2000000; ++i) {
        Cell n = MMM_make_expr(2);
        MMM_retain(neg);
        MMM_children(n)[0] = neg;
        MMM_children(n)[1] = e;
        MMM_sign(n);
        e = n;
    }
    const bool trapped = MER_trapped;
    MER_trapped = true;
    long code = 0;
    try {
        MMM_release(MSE_frontend.eval(e));
    } catch (const MER_exception& ex) {
        code = ex.code;
        MSE_recover(true);
    }
    MER_trapped = trapped;
    EXPECT_EQ(code, 1010);
    MMM_release(e);
}

}  // namespace
