// The flat printer, run in a live session: trees read by the parser are printed and,
// where the text must read back, parsed again.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "MAR_numbers.h"
#include "MCM_equal.h"
#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_table.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

// The tree of a text, owned; null when the read failed. Procedures stay `_procdef` trees
// (the procedure module's conversion is left out), so that the printer of trees is tested.
Cell parse(std::string_view text) {
    const auto procdef = MPA_hooks.procdef;
    MPA_hooks.procdef = nullptr;
    MPA_tree_reader r(text, false, 1);
    const std::string out = capture_output([&] { r.run(); });
    MPA_hooks.procdef = procdef;
    EXPECT_EQ(out, "") << text;
    MER_pending = 0;
    return r.take_result();
}

std::string print_text(std::string_view text) {
    Cell t = parse(text);
    if (!t) return "<no tree>";
    std::string s = MOU_to_text(t);
    MMM_release(t);
    return s;
}

// The same with the sign tricks and the reordering off.
std::string source_text(std::string_view text) {
    MOU_source_form = true;
    std::string s = print_text(text);
    MOU_source_form = false;
    return s;
}

Cell num(const char* text) { return MAR_read_number(text); }

std::string number_text(Cell n) {
    std::string s = MOU_to_text(n);
    MMM_release(n);
    return s;
}

Cell quotient(const char* a, const char* b) {
    Cell x = num(a), y = num(b);
    Cell q = MAR_binop(x, y, nullptr, MAR_DIVIDE);
    MMM_release(x);
    MMM_release(y);
    return q;
}

Cell negative(Cell x) {
    Cell y = MAR_negate(x);
    MMM_release(x);
    return y;
}

// a + b*I, taking over the parts.
Cell complex(Cell x, Cell y) {
    Cell bi = MAR_binop(y, MAR_I, nullptr, MAR_MULTIPLY);
    Cell z = MAR_binop(x, bi, nullptr, MAR_ADD);
    MMM_release(x);
    MMM_release(y);
    MMM_release(bi);
    return z;
}

// op(a, b...) with the identifier of a built-in.
Cell call(int id, std::vector<Cell> ops) {
    Cell e = MMM_make_expr(long(ops.size()) + 1);
    Cell head = MMM_ident_by_id(id);
    MMM_retain(head);
    MMM_children(e)[0] = head;
    for (size_t i = 0; i < ops.size(); ++i) MMM_children(e)[i + 1] = ops[i];
    MMM_sign(e);
    return e;
}

struct DigitsAt {
    int32_t saved = MAR_digits;
    explicit DigitsAt(long n) { MAR_set_digits(n); }
    ~DigitsAt() { MAR_set_digits(saved); }
};

TEST(Print, OperatorsParenthesiseByPriority) {
    EXPECT_EQ(print_text("(a+b)*c"), "(a + b)*c");
    EXPECT_EQ(print_text("a*(b+c)"), "a*(b + c)");
    EXPECT_EQ(print_text("a-(b-c)"), "a - (b - c)");
    EXPECT_EQ(print_text("a-b-c"), "(a - b) - c") << "equal priorities parenthesise";
    EXPECT_EQ(print_text("a-(b+c)"), "a - (b + c)");
    EXPECT_EQ(print_text("-(a+b)"), "-(a + b)");
    EXPECT_EQ(print_text("-a*b"), "-a*b");
    EXPECT_EQ(print_text("a^(b^c)"), "a^(b^c)");
    EXPECT_EQ(print_text("a^b^c"), "(a^b)^c");
    EXPECT_EQ(print_text("-x^2"), "-x^2");
    EXPECT_EQ(print_text("(-x)^2"), "(-x)^2");
    EXPECT_EQ(print_text("a*(-b)"), "a*(-b)");
    EXPECT_EQ(print_text("a/(b/c)"), "a/(b/c)");
    EXPECT_EQ(print_text("a*b/c"), "(a*b)/c");
    EXPECT_EQ(print_text("1/(a+b)"), "1/(a + b)");
    EXPECT_EQ(print_text("not (a or b) and c"), "not (a or b) and c");
    EXPECT_EQ(print_text("a = (b = c)"), "a = (b = c)");
    EXPECT_EQ(print_text("a > b"), "b < a");
    EXPECT_EQ(print_text("a..b mod c"), "a..b mod c");
    EXPECT_EQ(print_text("(a, b), c"), "(a, b), c");
    EXPECT_EQ(print_text("(a+b)(x)"), "(a + b)(x)");
    EXPECT_EQ(print_text("f(x)[1, 2]"), "f(x)[1, 2]");
    EXPECT_EQ(print_text("(a+b)[1]"), "(a + b)[1]");
    EXPECT_EQ(print_text("a::b::c"), "a::b::c");
    EXPECT_EQ(print_text("(f(x))::b"), "(f(x))::b");
    EXPECT_EQ(print_text("a::`b c`"), "slot(a, \"b c\")");
    EXPECT_EQ(print_text("x $ i = 1..3"), "x $ i = 1..3");
    EXPECT_EQ(print_text("$ 1..4 step 2"), "$ 1..4 step 2");
    EXPECT_EQ(print_text("x $ i in L"), "x $ i in L");
    EXPECT_EQ(print_text("(x $ 3) + 1"), "(x $ 3) + 1");
    // Fewer operands than an operator joins: the general form.
    Cell a = MMM_ident_named("a");
    Cell lone = call(MFN_ID_PLUS, {a});
    EXPECT_EQ(MOU_to_text(lone), "_plus(a)");
    MMM_release(lone);
}

TEST(Print, NegativeTermsAndFactorsShowTheirSign) {
    EXPECT_EQ(print_text("a + b*(-1)"), "a - b");
    EXPECT_EQ(print_text("a + (-2)"), "a - 2");
    EXPECT_EQ(print_text("(-2) + a"), "a - 2") << "a term that is not negative goes first";
    EXPECT_EQ(print_text("-a + -b"), "- a - b");
    EXPECT_EQ(print_text("x*y*(-1)"), "-x*y");
    EXPECT_EQ(print_text("x*y*2"), "2*x*y");
    EXPECT_EQ(print_text("x*(-2)"), "-2*x");
    EXPECT_EQ(print_text("a*(x*(-2))"), "a*(-2*x)");
    EXPECT_EQ(print_text("(x*(-2))^2"), "(-2*x)^2");
    EXPECT_EQ(print_text("a - x*(-2)"), "a - (-2*x)");
    EXPECT_EQ(print_text("(-2)*x"), "(-2)*x");
    EXPECT_EQ(print_text("x^(-1)"), "1/x");
    EXPECT_EQ(print_text("2*x^(-1)"), "2/x");
    EXPECT_EQ(print_text("x^(-1)*y"), "1/x*y");
    EXPECT_EQ(print_text("y*x^(-2)"), "y/x^2");
    EXPECT_EQ(print_text("y*(a+b)^(-1)"), "y/(a + b)");
    EXPECT_EQ(print_text("(x^(-1))^2"), "(1/x)^2");
    EXPECT_EQ(print_text("a - -b"), "a - (- b)");
    EXPECT_EQ(print_text("-(-a)"), "-(- a)");
    // The source form shows the tree as it stands.
    EXPECT_EQ(source_text("a + b*(-1)"), "a + b*(-1)");
    EXPECT_EQ(source_text("(-2) + a"), "(-2) + a");
    EXPECT_EQ(source_text("-a + b"), "(- a) + b");
    EXPECT_EQ(source_text("x*2"), "x*2");
    EXPECT_EQ(source_text("x^(-1)"), "x^(-1)");
    // Sums keep their order when asked to.
    MOU_keep_order = 2;
    EXPECT_EQ(print_text("-a + b"), "- a + b");
    MOU_keep_order = 1;
}

TEST(Print, RationalsAndComplexNumbersStandAsFactors) {
    EXPECT_EQ(print_text("1/2"), "1/2");
    EXPECT_EQ(print_text("-4/6"), "-2/3");
    EXPECT_EQ(print_text("x*(1/2)"), "1/2*x");
    EXPECT_EQ(source_text("x*(1/2)"), "x*(1/2)");
    EXPECT_EQ(print_text("a/(1/2)"), "a/(1/2)");
    EXPECT_EQ(print_text("(1/2)^x"), "(1/2)^x");
    EXPECT_EQ(print_text("x^(1/2)"), "x^(1/2)");
    EXPECT_EQ(print_text("a + (-1/2)"), "a - 1/2");
    EXPECT_EQ(print_text("123456789012345678901234567890"), "123456789012345678901234567890");

    MMM_retain(MAR_I);
    EXPECT_EQ(number_text(MAR_I), "I");
    EXPECT_EQ(number_text(complex(num("1"), num("2"))), "1 + 2*I");
    EXPECT_EQ(number_text(complex(num("1"), MAR_from_long(-2))), "1 - 2*I");
    EXPECT_EQ(number_text(complex(num("0"), MAR_from_long(-1))), "-I");
    EXPECT_EQ(number_text(complex(quotient("1", "2"), quotient("3", "4"))), "1/2 + 3/4*I");
    EXPECT_EQ(number_text(complex(num("1.5"), num("2"))), "1.5 + 2.0*I");
    EXPECT_EQ(number_text(complex(num("0"), num("0.5"))), "0.5*I");
    EXPECT_EQ(number_text(complex(num("0.001"), negative(quotient("13.0", "4")))), "0.001 - 3.25*I");
    // 1.0e-19 drowns in the inexact zero real part of -3.25*I: the sum's real part is a
    // zero with an exponent, which shows as no real part at all.
    EXPECT_EQ(number_text(complex(num("1.0e-19"), negative(quotient("13.0", "4")))), "-3.25*I");

    Cell x = MMM_ident_named("x");
    Cell z = complex(num("1"), num("2"));
    MMM_retain(z);
    MMM_retain(z);
    Cell product = call(MFN_ID_MULT, {x, z});
    Cell power = call(MFN_ID_POWER, {z, MAR_TWO});
    MMM_retain(MAR_TWO);
    MMM_retain(x);
    Cell sum = call(MFN_ID_PLUS, {x, z});
    EXPECT_EQ(MOU_to_text(product), "(1 + 2*I)*x");
    EXPECT_EQ(MOU_to_text(power), "(1 + 2*I)^2");
    EXPECT_EQ(MOU_to_text(sum), "x + (1 + 2*I)");
    MMM_release(product);
    MMM_release(power);
    MMM_release(sum);
}

TEST(Print, FloatsFollowDigitsAndLoseTrailingZeroes) {
    EXPECT_EQ(number_text(quotient("1.0", "3")), "0.3333333333");
    EXPECT_EQ(number_text(quotient("2.0", "3")), "0.6666666667");
    EXPECT_EQ(number_text(num("1.5000")), "1.5");
    EXPECT_EQ(number_text(num("100.0")), "100.0");
    EXPECT_EQ(number_text(num("0.0")), "0.0");
    EXPECT_EQ(number_text(num("0.0001")), "0.0001");
    EXPECT_EQ(number_text(num("0.00001")), "1.0e-5");
    EXPECT_EQ(number_text(num("1e20")), "1.0e20");
    EXPECT_EQ(number_text(num("1234567890.0")), "1234567890.0");
    EXPECT_EQ(number_text(num("12345678901.0")), "1.23456789e10");
    EXPECT_EQ(number_text(num("9.99999999999")), "10.0") << "the rounding carries";
    EXPECT_EQ(number_text(num("2.5e-300000")), "2.5e-300000");
    EXPECT_EQ(print_text("-0.001"), "-0.001");
    EXPECT_EQ(print_text("a + (-1.5)"), "a - 1.5");
    EXPECT_EQ(print_text("RD_NINF"), "RD_NINF");
    {
        DigitsAt d(3);
        EXPECT_EQ(number_text(quotient("2.0", "3")), "0.667");
        EXPECT_EQ(number_text(num("1234.5")), "1.23e3");
    }
    Cell third = quotient("1.0", "3");  // made at DIGITS 10: it carries 19 digits
    {
        DigitsAt d(30);
        EXPECT_EQ(number_text(quotient("1.0", "3")), "0." + std::string(30, '3'));
        EXPECT_EQ(MOU_to_text(third), "0." + std::string(19, '3'));
    }
    MMM_release(third);
    MOU_trailing_zeroes = true;
    EXPECT_EQ(number_text(num("1.5")), "1.500000000");
    MOU_trailing_zeroes = false;
}

TEST(Print, StringsAndNamesReadBack) {
    EXPECT_EQ(print_text(R"("a\nb\tc\"d\\e\r\b")"), R"("a\nb\tc\"d\\e\r\b")");
    EXPECT_EQ(print_text(R"("\*\?")"), R"("\*\?")") << "the lexer keeps these as written";
    Cell s = MMM_make_string("line\nnext\bend");
    MOU_unquoted = true;
    EXPECT_EQ(MOU_to_text(s), "line\nnext\nend");
    MOU_unquoted = false;
    MMM_release(s);

    EXPECT_EQ(print_text("`a b` + `a``b` + _x1"), "`a b` + `a``b` + _x1");
    EXPECT_EQ(print_text("`if`"), "if") << "keywords are not asked for";
    EXPECT_EQ(print_text("`1a`"), "`1a`");
    EXPECT_FALSE(MOU_plain_name(""));
    EXPECT_FALSE(MOU_plain_name("\xc3\xa9t\xc3\xa9"));
    EXPECT_TRUE(MOU_plain_name("_"));
}

TEST(Print, ContainersAndUniversalValues) {
    EXPECT_EQ(print_text("[]"), "[]");
    EXPECT_EQ(print_text("[1, [x, \"s\"], null()]"), "[1, [x, \"s\"], null()]");
    EXPECT_EQ(print_text("{}"), "{}");
    EXPECT_EQ(print_text("{a}"), "{a}");
    EXPECT_EQ(print_text("[NIL, FAIL, TRUE, FALSE, UNKNOWN]"), "[NIL, FAIL, TRUE, FALSE, UNKNOWN]");

    Cell t = MMM_make_table(2);
    EXPECT_EQ(MOU_to_text(t), "table()");
    Cell one = MAR_ONE;
    Cell key = parse("b, c");
    Cell a = MMM_ident_named("a");
    MMM_table_set(&MMM_children(t)[MMM_TABLE_HASH], one, a);
    MMM_table_set(&MMM_children(t)[MMM_TABLE_HASH], key, MMM_NULL);
    MMM_sign(t);
    EXPECT_EQ(MOU_to_text(t), "table(1 = a, (b, c) = null())");
    MMM_release(a);
    MMM_release(key);
    MMM_release(t);

    Cell f = MMM_ident_by_id(MFN_ID_PLUS);
    Cell env = MMM_value(f);
    if (env) {  // the function environments exist once the evaluator is up
        EXPECT_EQ(MOU_to_text(env), "_plus");
        EXPECT_EQ(MOU_to_text(MMM_child(env, 1)), "_plus");
        MMM_release(env);
    }
    EXPECT_EQ(MOU_to_text(MMM_var(1, 3)), "DOM_VAR(1,3)");
}

TEST(Print, StatementsAndTheirLayout) {
    EXPECT_EQ(print_text("a := b := 2"), "a := (b := 2)");
    EXPECT_EQ(print_text("f((a := 1))"), "f((a := 1))");
    EXPECT_EQ(print_text("if a and b then c elif d then e end_if"),
              "if a and b then c else if d then e end_if end_if");
    EXPECT_EQ(print_text("if (x := 1) then y end_if"), "if (x := 1) then y end_if");
    EXPECT_EQ(print_text("for i from 1 to n step 2 do s; t end_for"), "for i from 1 to n step 2 do s; t end_for");
    EXPECT_EQ(print_text("for i from n downto 1 do s end_for"), "for i from n downto 1 do s end_for");
    EXPECT_EQ(print_text("for x in L do s end_for"), "for x in L do s end_for");
    EXPECT_EQ(print_text("while not a do b end_while"), "while not a do b end_while");
    EXPECT_EQ(print_text("repeat a until b end_repeat"), "repeat a until b end_repeat");
    EXPECT_EQ(print_text("case x of 1 do a of 2 do b otherwise c end_case"),
              "case x of 1 do a of 2 do b otherwise c end_case");
    EXPECT_EQ(print_text("next; break; quit; delete a, b; save c"), "next; break; quit; delete a, b; save c");
    EXPECT_EQ(print_text("x := (a; b)"), "x := (a; b)");

    MOU_statement_layout = true;
    EXPECT_EQ(print_text("if a then b; c else d end_if"), "if a then\n  b;\n  c\nelse\n  d\nend_if");
    EXPECT_EQ(print_text("for i in L do while c do s end_while end_for"),
              "for i in L do\n  while c do\n    s\n  end_while\nend_for");
    EXPECT_EQ(print_text("case x of 1 do a otherwise b end_case"), "case x\nof 1 do\n  a\notherwise\n  b\nend_case");
    MOU_statement_layout = false;
    EXPECT_EQ(MOU_indent, 0);

    // Trees built by hand with the wrong operand count take the general form.
    Cell a = MMM_ident_named("a");
    Cell bad_if = call(MFN_ID_IF, {a});
    MMM_retain(MMM_NULL);
    Cell seq = call(MFN_ID_STMTSEQ, {parse("x"), MMM_NULL, parse("y")});
    EXPECT_EQ(MOU_to_text(bad_if), "_if(a)");
    EXPECT_EQ(MOU_to_text(seq), "x; y") << "an empty statement disappears";
    MMM_release(bad_if);
    MMM_release(seq);
}

TEST(Print, ProceduresShowTheirNames) {
    EXPECT_EQ(print_text("x -> x^2"), "x -> x^2");
    EXPECT_EQ(print_text("(x, y) -> x + y"), "(x, y) -> x + y");
    EXPECT_EQ(print_text("() -> 1"), "() -> 1");
    EXPECT_EQ(print_text("x -> y -> x"), "x -> y -> x");
    EXPECT_EQ(print_text("f(x -> (x, 1))"), "f(x -> (x, 1))");
    EXPECT_EQ(print_text("(x -> x)(2)"), "(x -> x)(2)");
    EXPECT_EQ(print_text("proc(x, y = 2 : DOM_INT) : Type local a, b : T; option remember; begin a := x + y + g; "
                         "procname end"),
              "proc(x, y = 2 : DOM_INT) : Type local a, b : T; option remember; begin a := x + y + g; procname "
              "end_proc");
    EXPECT_EQ(print_text("proc(f = (x -> x)) name g; save h; option escape, hold; begin end"),
              "proc(f = (x -> x)) name g; save h; option hold, escape; begin end_proc");
    EXPECT_EQ(print_text("proc() option noExpose; begin secret end"),
              "proc() option noExpose; begin /* Hidden */ end_proc");
    EXPECT_EQ(source_text("proc() option noExpose; begin secret end"),
              "proc() option noExpose; begin secret end_proc");
    MOU_statement_layout = true;
    EXPECT_EQ(print_text("proc(x) local a; begin a := x; a end"),
              "proc(x)\n  local a;\nbegin\n  a := x;\n  a\nend_proc");
    MOU_statement_layout = false;
}

TEST(Print, PrintedTextReadsBackAsTheSameTree) {
    const char* corpus[] = {
        "a + b + c",
        "(a + b) + c",
        "a - b - c",
        "a - (b - c)",
        "a*b*c/d",
        "a/(b*c)",
        "-a^b",
        "(-a)^b",
        "a^-b",
        "-(-a)",
        "a - -b",
        "-a + b",
        "a + (-2)",
        "2^(-1)",
        "x*(1/2)*y",
        "a/(1/2)",
        "(-1/2)*x",
        "1.5..2.25",
        "0.1 + 2.5e-7 + 1.0e20",
        "a.b.c",
        "x.1.(2)",
        "a @ b @@ c",
        "a = b and c <> d or not e",
        "a <= b < c",
        "(a = b) = c",
        "a in S union T minus U intersect V",
        "a mod b div c",
        "f(x)[1]'",
        "n! + (n!)!",
        "f(a, (b, c), [d, {e}])",
        "x $ i = 1..n",
        "x $ i in L step 2",
        "(i = 1) $ 3",
        "$ 1..4 step 2",
        "a::b::..",
        "::g",
        "`a b`::c",
        "\"str\\n\\\"q\\\"\"",
        "`x y` + `_a``b`",
        "a := b := 2",
        "a, b := 1, 2",
        "[a, b] := [1, 2]",
        "f(x) := 1; a[1] := 2",
        "if a and b then c elif d then e else f end_if",
        "if (a; b) then c end_if",
        "x := if a then 1 else 2 end_if",
        "for i from 1 to n step 2 do s; t end_for",
        "for i from n downto 1 do s end_for",
        "for x in L do s end_for",
        "while not (a or b) do x end_while",
        "repeat x; y until z end_repeat",
        "case x of 1 do a of 2 do b otherwise c end_case",
        "next; break; quit",
        "delete a, b; save x",
        "x -> x^2",
        "(x, y) -> x + y*procname",
        "x -> y -> x + y",
        "f := x -> (x, 1)",
        "proc(x, y = 2 : DOM_INT) : Type local a, b : T; save s; option remember, hold; begin a := x + y; dom end",
        "proc(p) local v; begin v -> v + p end",
        "proc() begin end",
        "RD_INF + RD_NAN + I + f(RD_NINF)",
        "%2 + %",
    };
    for (bool source : {true, false}) {
        MOU_source_form = source;
        for (const char* text : corpus) {
            Cell tree = parse(text);
            ASSERT_NE(tree, nullptr) << text;
            const std::string printed = MOU_to_text(tree);
            Cell again = parse(printed);
            // Without the source form, signs and sum order change the tree (not its
            // value); those texts must still read.
            const bool signs = !source && (std::string(text).find('-') != std::string::npos ||
                                           std::string(text).find("1/2") != std::string::npos);
            if (!signs) {
                EXPECT_TRUE(again && MCM_equal(tree, again))
                    << text << "\nprinted: " << printed << "\nread as: " << (again ? MPA_dump(again) : "nothing")
                    << "\nwanted:  " << MPA_dump(tree);
            } else {
                EXPECT_NE(again, nullptr) << printed;
            }
            MMM_release(tree);
            MMM_release(again);
        }
    }
    MOU_source_form = false;
}

TEST(Print, LongOutputBreaksAtTextwidthAndReadsBack) {
    EXPECT_EQ(MOU_break_lines("abcdefghij", 5), "abcd\\\nefgh\\\nij");
    EXPECT_EQ(MOU_break_lines("abcde\nfgh", 5), "abcde\nfgh");
    EXPECT_EQ(MOU_break_lines("abc\\ndefg", 5), "abc\\\n\\nde\\\nfg") << "never behind a backslash";
    EXPECT_EQ(MOU_break_lines("ab``cd", 4), "ab\\\n``cd") << "a doubled backquote stays whole";
    EXPECT_EQ(MOU_break_lines("\tabcdefgh", 10), "        a\\\nbcdefgh");

    std::string text = "[";
    for (int i = 0; i < 40; ++i) text += (i ? ", " : "") + std::string("\"s\\n") + std::to_string(i) + "\" + x" + std::to_string(i);
    text += "]";
    Cell tree = parse(text);
    ASSERT_NE(tree, nullptr);
    MOU_set_textwidth(23);
    const std::string out = capture_output([&] { MOU_emit(tree, MOU_RES, true, true); });
    MOU_set_textwidth(75);
    size_t start = 0, lines = 0;
    while (start < out.size()) {
        const size_t end = out.find('\n', start);
        EXPECT_LE(end - start, 23u) << out.substr(start, end - start);
        start = end + 1;
        ++lines;
    }
    EXPECT_GT(lines, 20u);
    Cell again = parse(out);
    EXPECT_TRUE(again && MCM_equal(tree, again)) << out;
    MMM_release(tree);
    MMM_release(again);

    long code = 0;
    const std::string report = capture_output([&] {
        try {
            MOU_set_textwidth(6);
        } catch (const MER_exception& e) {
            code = e.code;
            MER_pending = 0;
        }
    });
    EXPECT_EQ(code, 1012);
    EXPECT_EQ(report, "Error: Argument out of range [TEXTWIDTH]\n");
    EXPECT_EQ(MOU_textwidth, 75);
}

TEST(Print, ChannelsAndThePrintRoutine) {
    Cell x = parse("[x, \"s\"]");
    EXPECT_EQ(capture_output([&] { MOU_emit(x, MOU_RES, true, true); }), "[x, \"s\"]\n");
    EXPECT_EQ(capture_output([&] { MOU_emit(x, MOU_WRN, false, false); }), "[x, \"s\"]");
    EXPECT_EQ(capture_output([&] { MOU_print_result(MMM_NULL); }), "");
    MOU_channel_format[MOU_RES] = MOU_format_by_name("_nul");
    EXPECT_EQ(capture_output([&] { MOU_print_result(x); }), "");
    MOU_channel_format[MOU_RES] = MOU_TXT;
    EXPECT_EQ(MOU_channel_by_name("_prt"), MOU_PRT);
    EXPECT_EQ(MOU_channel_by_name("_xyz"), -1);
    EXPECT_EQ(MOU_format_by_name("_xyz"), MOU_NUL);
    EXPECT_EQ(capture_output([] { MOU_printf(MOU_ERR, "%s %d\n", "code", 7); }), "code 7\n");

    Cell s = MMM_make_string("a\"b");
    Cell unquoted = MMM_ident_named("Unquoted");
    Cell nonl = MMM_ident_named("NoNL");
    Cell r = nullptr;
    EXPECT_EQ(capture_output([&] { r = MOU_print_values(std::vector<Cell>{s, x}); }), "\"a\\\"b\", [x, \"s\"]\n");
    EXPECT_EQ(r, MMM_NULL);
    MMM_release(r);
    EXPECT_EQ(capture_output([&] { MMM_release(MOU_print_values(std::vector<Cell>{unquoted, s, x})); }), "a\"b, [x, s]\n");
    EXPECT_EQ(capture_output([&] { MMM_release(MOU_print_values(std::vector<Cell>{nonl, s})); }), "a\"b");
    EXPECT_EQ(capture_output([&] { MMM_release(MOU_print_values(std::vector<Cell>{})); }), "\n");
    EXPECT_FALSE(MOU_unquoted) << "options hold for one call";
    EXPECT_EQ(MOU_expr2text(std::vector<Cell>{s}), "\"a\\\"b\"");
    EXPECT_EQ(MOU_expr2text(std::vector<Cell>{s, x}), "\"a\\\"b\", [x, \"s\"]");
    EXPECT_EQ(MOU_expr2text(std::vector<Cell>{}), "");
    MMM_release(s);
    MMM_release(unquoted);
    MMM_release(nonl);
    MMM_release(x);
}

// _plus(_plus(..., -1), -1), a million deep.
Cell deep_negative_sum() {
    Cell v = MAR_MINUS_ONE;
    MMM_retain(v);
    for (int i = 0; i < 1000000; ++i) {
        MMM_retain(MAR_MINUS_ONE);
        v = call(MFN_ID_PLUS, {v, MAR_MINUS_ONE});
    }
    return v;
}

TEST(Print, DeepValuesAreAnErrorNotACrash) {
    Cell v = MMM_NIL;
    MMM_retain(v);
    for (int i = 0; i < 5000; ++i) {
        Cell l = MMM_make_list(1);
        MMM_children(l)[0] = v;
        MMM_sign(l);
        v = l;
    }
    long code = 0;
    const std::string out = capture_output([&] {
        try {
            MOU_to_text(v);
        } catch (const MER_exception& e) {
            code = e.code;
            MER_pending = 0;
        }
    });
    EXPECT_EQ(code, 1302);
    EXPECT_EQ(out, "Error: Infinite recursion in output detected\n");
    EXPECT_EQ(MOU_depth, 0);
    EXPECT_EQ(print_text("[[1]]"), "[[1]]") << "the next print works";
    MMM_release(v);

    // A sum of sums of negative terms, far deeper than the native stack would take if
    // the sign test went all the way down.
    Cell sum = deep_negative_sum();
    code = 0;
    capture_output([&] {
        try {
            MOU_to_text(sum);
        } catch (const MER_exception& e) {
            code = e.code;
            MER_pending = 0;
        }
    });
    EXPECT_EQ(code, 1302);
    MMM_release(sum);
}

// Stand-ins for the evaluator's domains: strings print through a method, sets in
// reverse, and a local outside any procedure gets a name.
Cell test_type_slot(Cell value, const char* name) {
    const int cat = MMM_category(value);
    if (std::string(name) == "print" && cat == DOM_STRING) return MMM_ident_named("show");
    if (std::string(name) == "sort" && cat == DOM_SET) return MMM_ident_named("reverse");
    return nullptr;
}
Cell test_call(Cell fn, Cell arg) {
    if (MMM_ident_text(fn) == "show") return MMM_make_string("<" + std::string(MMM_string_view(MMM_child(arg, 0))) + ">");
    std::vector<Cell> keys;
    MMM_table_walker w(MMM_child(arg, MMM_TABLE_HASH));
    Cell k, v;
    while (w.next(&k, &v)) keys.insert(keys.begin(), k);
    Cell l = MMM_make_list(long(keys.size()));
    for (size_t i = 0; i < keys.size(); ++i) {
        MMM_retain(keys[i]);
        MMM_children(l)[i] = keys[i];
    }
    MMM_sign(l);
    return l;
}
Cell test_var_name(int depth, int index) { return depth == 0 && index == 2 ? MMM_ident_by_id(MFN_ID_PLUS) : nullptr; }

TEST(Print, TypeMethodsAndRunningProceduresPlugIn) {
    const MOU_hooks_record saved = MOU_hooks;
    MOU_hooks.type_slot = test_type_slot;
    MOU_hooks.call = test_call;
    MOU_hooks.var_name = test_var_name;
    EXPECT_EQ(print_text("[\"ab\", {1, 2, 3}]"), "[<ab>, {3, 2, 1}]");
    EXPECT_EQ(MOU_to_text(MMM_var(0, 2)), "_plus");
    EXPECT_EQ(MOU_to_text(MMM_var(0, 3)), "DOM_VAR(0,3)");
    MOU_hooks = saved;
    EXPECT_EQ(print_text("[\"ab\", {1, 2, 3}]"), "[\"ab\", {1, 2, 3}]");
}

}  // namespace
