// Lexer and parser, run in a live session: tokens with their kinds, trees in functional
// notation, and syntax errors with their positions.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_values.h"
#include "MPA_reader.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

struct Parsed {
    std::string tree;    // dump of the result, "" when the read failed
    std::string output;  // what was printed: errors and warnings
    bool incomplete = false;
    int errors = 0;
};

// The trees as the parser builds them: the procedure module's conversion of `_procdef`
// trees into procedures is left out while a test reads.
struct RawProcdef {
    decltype(MPA_hooks.procdef) saved = MPA_hooks.procdef;
    RawProcdef() { MPA_hooks.procdef = nullptr; }
    ~RawProcdef() { MPA_hooks.procdef = saved; }
};

Parsed parse(std::string_view text) {
    RawProcdef raw;
    Parsed p;
    MPA_tree_reader r(text, false, 1);
    p.output = capture_output([&] { r.run(); });
    p.incomplete = r.incomplete;
    p.errors = r.errors;
    if (Cell t = r.result()) p.tree = MPA_dump(t);
    MER_pending = 0;
    return p;
}

std::string tree(std::string_view text) {
    Parsed p = parse(text);
    EXPECT_EQ(p.output, "") << text;
    return p.tree;
}

struct Token {
    int kind;
    std::string text;  // identifier name, string contents or number text
    bool operator==(const Token&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Token& t) { return os << t.kind << ":" << t.text; }

std::vector<Token> tokens(std::string_view text, std::string* output = nullptr, bool* incomplete = nullptr) {
    MPA_tree_reader r(text, true, 1);
    std::vector<Token> out;
    std::string printed = capture_output([&] {
        for (;;) {
            const int k = r.next_token();
            Token t{k, ""};
            if (Cell v = r.tok.value) {
                if (MMM_is_node(v, DOM_IDENT)) t.text = MMM_ident_text(v);
                else if (MMM_is_node(v, DOM_STRING)) t.text = MMM_string_view(MMM_child(v, 0));
                else if (MMM_kind_of(v) == MMM_STRING) t.text = MMM_string_view(v);
            }
            if (k == TK_EOF) break;
            out.push_back(t);
        }
    });
    if (output) *output = printed;
    if (incomplete) *incomplete = r.incomplete;
    MER_pending = 0;
    return out;
}

using T = std::vector<Token>;

TEST(Lexer, NumbersAndDots) {
    EXPECT_EQ(tokens("1..2"), (T{{TK_INTEGER, "0.1"}, {TK_RANGE, ""}, {TK_INTEGER, "0.2"}}));
    EXPECT_EQ(tokens("1...2"), (T{{TK_INTEGER, "0.1"}, {TK_HULL, ""}, {TK_INTEGER, "0.2"}}));
    EXPECT_EQ(tokens("1.e2"), (T{{TK_FLOAT, "0.1.e2"}}));
    EXPECT_EQ(tokens("1.E2"), (T{{TK_INTEGER, "0.1"}, {'.', ""}, {TK_IDENT, "E2"}}));
    EXPECT_EQ(tokens("1e5"), (T{{TK_FLOAT, "0.1e5"}}));
    EXPECT_EQ(tokens("2E-3"), (T{{TK_FLOAT, "0.2e-3"}}));
    EXPECT_EQ(tokens("1e"), (T{{TK_INTEGER, "0.1"}, {TK_IDENT, "e"}}));
    EXPECT_EQ(tokens("1e+"), (T{{TK_INTEGER, "0.1"}, {TK_IDENT, "e"}, {'+', ""}}));
    EXPECT_EQ(tokens("2e+x"), (T{{TK_INTEGER, "0.2"}, {TK_IDENT, "e"}, {'+', ""}, {TK_IDENT, "x"}}));
    EXPECT_EQ(tokens(".5"), (T{{'.', ""}, {TK_INTEGER, "0.5"}}));
    EXPECT_EQ(tokens(".5e3"), (T{{'.', ""}, {TK_FLOAT_DOT, "0.5e3"}}));
    EXPECT_EQ(tokens("1.5e3"), (T{{TK_FLOAT, "0.1.5e3"}}));
    EXPECT_EQ(tokens("1.x"), (T{{TK_INTEGER, "0.1"}, {'.', ""}, {TK_IDENT, "x"}}));
}

TEST(Lexer, OperatorsTakeTheLongestText) {
    EXPECT_EQ(tokens("=="), (T{{'=', ""}, {'=', ""}}));
    EXPECT_EQ(tokens("=>"), (T{{'=', ""}, {'>', ""}}));
    EXPECT_EQ(tokens("==> <=> <= <> >= := :: -> --> @@ !! %if"),
              (T{{TK_IMPLIES, ""}, {TK_EQUIV, ""}, {TK_LEEQUAL, ""}, {TK_UNEQUAL, ""}, {TK_GEEQUAL, ""},
                 {TK_ASSIGN, ""}, {TK_SCOPE, ""}, {TK_ARROW, ""}, {TK_LONG_ARROW, ""}, {TK_NEST, ""},
                 {TK_FACT2, ""}, {TK_STATIC_IF, ""}}));
    EXPECT_EQ(tokens("--x %ix"), (T{{'-', ""}, {'-', ""}, {TK_IDENT, "x"}, {'%', ""}, {TK_IDENT, "ix"}}));
    // A continuation may stand inside a two-character token.
    EXPECT_EQ(tokens(":\\\n="), (T{{TK_ASSIGN, ""}}));
}

TEST(Lexer, IdentifiersKeywordsAndSlots) {
    EXPECT_EQ(tokens("if x_1 then end_if"),
              (T{{TK_IF, ""}, {TK_IDENT, "x_1"}, {TK_THEN, ""}, {TK_END_IF, ""}}));
    EXPECT_EQ(tokens("a::b"), (T{{TK_IDENT, "a"}, {TK_SCOPE, ""}, {TK_STRING, "b"}}));
    EXPECT_EQ(tokens("a::`b c`"), (T{{TK_IDENT, "a"}, {TK_SCOPE, ""}, {TK_IDENT, "b c"}}));
    EXPECT_EQ(tokens("a::if"), (T{{TK_IDENT, "a"}, {TK_SCOPE, ""}, {TK_IF, ""}}));
    EXPECT_EQ(tokens("`if` `a``b`"), (T{{TK_IDENT, "if"}, {TK_IDENT, "a`b"}}));
    int priority = 0;
    EXPECT_EQ(MLX_keyword_lookup("intersect", &priority), TK_INTERSECT);
    EXPECT_EQ(priority, 800);
    EXPECT_EQ(MLX_keyword_lookup("end_categoryx", nullptr), 0);
    EXPECT_EQ(MLX_token_name(TK_END_CATEGORY), "end_category");
    EXPECT_EQ(MLX_token_name(TK_FLOAT_DOT), "floating point number");
    EXPECT_EQ(MLX_token_name(';'), ";");
}

TEST(Lexer, CommentsNestAndEndOfInputInsideOneIsAnError) {
    EXPECT_EQ(tokens("a /* x /* y */ z */ b // c\nd"), (T{{TK_IDENT, "a"}, {TK_IDENT, "b"}, {TK_IDENT, "d"}}));
    EXPECT_EQ(tokens("a /* x ***/ b"), (T{{TK_IDENT, "a"}, {TK_IDENT, "b"}}));
    std::string out;
    bool incomplete = false;
    EXPECT_EQ(tokens("a /* b", &out, &incomplete), (T{{TK_IDENT, "a"}}));
    EXPECT_EQ(out, "Error: line 1, col 6: Unexpected end of input in comment\n");
    EXPECT_TRUE(incomplete);
    EXPECT_EQ(tokens("# comment #", &out), (T{{TK_IDENT, "comment"}}));
    EXPECT_EQ(out, "Error: line 1, col 1: Illegal character '#'\n") << "only the first error is printed";
}

TEST(Lexer, StringsAndTheirEscapes) {
    std::string out;
    EXPECT_EQ(tokens(R"("a\qb")", &out), (T{{TK_STRING, "aqb"}}));
    EXPECT_EQ(out, "Warning: line 1, col 4: Unexpected escape character '\\q' in string\n");
    EXPECT_EQ(tokens(R"("\*\?\"\\\n\t")"), (T{{TK_STRING, "\\*\\?\"\\\n\t"}}));
    EXPECT_EQ(tokens("\"a\\\nb\""), (T{{TK_STRING, "ab"}}));
    bool incomplete = false;
    EXPECT_EQ(tokens("\"abc", &out, &incomplete), (T{{TK_STRING, "abc"}}));
    EXPECT_TRUE(incomplete);
    EXPECT_EQ(out, "Error: line 1, col 4: Unexpected end of input in string\n");
}

TEST(Lexer, ContinuationsAndCommands) {
    bool incomplete = false;
    std::string out;
    EXPECT_EQ(tokens("x := \\", &out, &incomplete), (T{{TK_IDENT, "x"}, {TK_ASSIGN, ""}}));
    EXPECT_TRUE(incomplete);
    EXPECT_EQ(tokens("ab\\  \ncd"), (T{{TK_IDENT, "abcd"}}));
    EXPECT_EQ(tokens("a\\ x\nb", &out), (T{{TK_IDENT, "ab"}}));
    EXPECT_EQ(out, "Error: line 1, col 4: Unexpected character after \\\n");
    EXPECT_EQ(tokens("?sin x\n"), (T{{TK_HELP, "sin x"}}));
    EXPECT_EQ(tokens("!ls"), (T{{TK_SYSTEM, "ls"}}));
    EXPECT_EQ(tokens("x?", &out), (T{{TK_IDENT, "x"}}));
    EXPECT_EQ(out, "Error: line 1, col 2: Illegal character '?'\n");
}

TEST(Parser, OperatorsBindByPriorityAndAssociateLeft) {
    EXPECT_EQ(tree("a^b^c"), "_power(_power(a, b), c)");
    EXPECT_EQ(tree("2^-1"), "_power(2, -1)");
    EXPECT_EQ(tree("a > b"), "_less(b, a)");
    EXPECT_EQ(tree("a >= b"), "_leequal(b, a)");
    EXPECT_EQ(tree("a - b - c"), "_subtract(_subtract(a, b), c)");
    EXPECT_EQ(tree("a + b - c"), "_subtract(_plus(a, b), c)");
    EXPECT_EQ(tree("a - b + c"), "_plus(_subtract(a, b), c)");
    EXPECT_EQ(tree("a+b+c"), "_plus(a, b, c)");
    EXPECT_EQ(tree("(a+b)+c"), "_plus(_plus(a, b), c)");
    EXPECT_EQ(tree("a*b+c*d+e"), "_plus(_mult(a, b), _mult(c, d), e)");
    EXPECT_EQ(tree("-a^b"), "_negate(_power(a, b))");
    EXPECT_EQ(tree("-a+b"), "_plus(_negate(a), b)");
    EXPECT_EQ(tree("not a and b or c"), "_or(_and(_not(a), b), c)");
    EXPECT_EQ(tree("a = b mod c"), "_equal(a, _mod(b, c))");
    EXPECT_EQ(tree("a.b.c"), "_concat(a, b, c)");
    EXPECT_EQ(tree("f(x)[1]'"), "D(_index(f(x), 1))");
    EXPECT_EQ(tree("n!"), "fact(n)");
    EXPECT_EQ(tree("a xor b xor c"), "_xor(a, b, c)");
    EXPECT_EQ(tree("a in S union T"), "_in(a, _union(S, T))");
}

TEST(Parser, LiteralsFoldAtParseTime) {
    EXPECT_EQ(tree("-2"), "-2");
    EXPECT_EQ(tree("-x"), "_negate(x)");
    EXPECT_EQ(tree("1/2"), "1/2");
    EXPECT_EQ(tree("4/6"), "2/3");
    EXPECT_EQ(tree("1/x"), "_invert(x)");
    EXPECT_EQ(tree("a/b"), "_divide(a, b)");
    EXPECT_EQ(tree("()"), "NULL");
    EXPECT_EQ(tree("(NIL)"), "NULL");
    EXPECT_EQ(tree("[]"), "DOM_LIST()");
    EXPECT_EQ(tree("[1, x]"), "DOM_LIST(1, x)");
    EXPECT_EQ(tree("%"), "last(1)");
    EXPECT_EQ(tree("%2"), "last(2)");
    // A zero divisor is not folded: the division stays for the evaluation to refuse.
    Parsed p = parse("1/0 + 3/0");
    EXPECT_EQ(p.output, "");
    EXPECT_EQ(p.errors, 0);
    EXPECT_EQ(p.tree, "_plus(_invert(0), _divide(3, 0))");
}

TEST(Parser, SequencesAndAssignments) {
    EXPECT_EQ(tree("x $ i = 1..3"), "_seqgen(x, i, _range(1, 3))");
    EXPECT_EQ(tree("x $ 3"), "_seqgen(x, 3)");
    EXPECT_EQ(tree("i = 1 $ 3"), "_seqgen(_equal(i, 1), 3)");
    EXPECT_EQ(tree("$ 1..4 step 2"), "_seqstep(_range(1, 4), 2)");
    EXPECT_EQ(tree("x $ i in L"), "_seqin(x, i, L)");
    EXPECT_EQ(tree("a, b := 1"), "_assign(_exprseq(a, b), 1)");
    EXPECT_EQ(tree("a := b := 2"), "_assign(a, _assign(b, 2))");
    EXPECT_EQ(tree("[a, b] := [1, 2]"), "_assign(DOM_LIST(a, b), DOM_LIST(1, 2))");
    EXPECT_EQ(tree("f(x) := 1; a[1] := 2"), "_stmtseq(_assign(f(x), 1), _assign(_index(a, 1), 2))");
    Parsed p = parse("{a} := 1");
    EXPECT_EQ(p.output, "Error: line 1, col 6: Invalid left-hand side in assignment\n");
    p = parse("a + b := 1");
    EXPECT_EQ(p.output, "Error: line 1, col 8: Invalid left-hand side in assignment\n");
}

TEST(Parser, StatementsAreTreesOfTheirIds) {
    EXPECT_EQ(tree("if a then b end_if"), tree("if a then b end"));
    EXPECT_EQ(tree("if a then b elif c then d else e end_if"), "_if(a, b, _if(c, d, e))");
    EXPECT_EQ(tree("if a and b then c end_if"), "_if(_lazy_and(a, b), c, NIL)");
    EXPECT_EQ(tree("a and b"), "_and(a, b)");
    EXPECT_EQ(tree("while not (a or b) do x end_while"), "_while(_not(_lazy_or(a, b)), x)");
    EXPECT_EQ(tree("repeat x; y until z end_repeat"), "_repeat(_stmtseq(x, y), z)");
    EXPECT_EQ(tree("for i from 1 to n do s end_for"), "_for(i, 1, n, NIL, s)");
    EXPECT_EQ(tree("for i from n downto 1 step 2 do s end"), "_for_down(i, n, 1, 2, s)");
    EXPECT_EQ(tree("for x in L do s end_for"), "_for_in(x, L, s)");
    EXPECT_EQ(tree("case x of 1 do a of 2 do b otherwise c end_case"), "_case(x, 1, a, 2, b, c)");
    EXPECT_EQ(tree("next; break; quit"), "_stmtseq(_next(), _break(), _quit())");
    EXPECT_EQ(tree("delete a, b; save x"), "_stmtseq(_delete(a, b), _save(x))");
    EXPECT_EQ(tree("x := if a then 1 else 2 end_if"), "_assign(x, _if(a, 1, 2))");
    EXPECT_EQ(tree("a::b::.."), "slot(slot(a, \"b\"), \"..\")");
    EXPECT_EQ(tree("frame"), "_frame()");
    EXPECT_EQ(tree("frame ..::f"), "_frame(slot(_parentFrame(), \"f\"))");
    EXPECT_EQ(tree("::g"), "slot(_rootFrame(), \"g\")");
    EXPECT_EQ(tree("%if TRUE then a else b end_if"), "a");
    EXPECT_EQ(tree("%if FALSE then a elif TRUE then b end_if"), "b");
    EXPECT_EQ(tree("%if FALSE then a end_if"), "NIL");
}

TEST(Parser, ProceduresResolveTheirNamesToVariables) {
    EXPECT_EQ(tree("proc() begin end_proc"),
              "_procdef(NIL, NIL, NIL, NIL, NIL, NIL, NIL, NIL, NIL, NIL, FAIL, NIL)");
    EXPECT_EQ(tree("proc(x, y = 2 : DOM_INT) : Type local a, b; option remember; begin a := x + y + g; procname end"),
              "_procdef(_exprseq(x, y), _exprseq(a, b), remember, "
              "_stmtseq(_assign(DOM_VAR(0, 2), _plus(DOM_VAR(0, 4), DOM_VAR(0, 5), g)), DOM_VAR(0, 0)), NIL, "
              "_exprseq(NIL, DOM_INT), Type, NIL, _exprseq(NIL, 2), NIL, FAIL, NIL)");
    EXPECT_EQ(tree("f := x -> y -> x"),
              "_assign(f, _procdef(x, NIL, arrow, _procdef(y, NIL, arrow, DOM_VAR(1, 2), NIL, NIL, NIL, NIL, NIL, NIL, "
              "FAIL, NIL), NIL, NIL, NIL, NIL, NIL, NIL, FAIL, NIL))");
    EXPECT_EQ(tree("(x, y) -> x"), "_procdef(_exprseq(x, y), NIL, arrow, DOM_VAR(0, 2), NIL, NIL, NIL, NIL, NIL, NIL, FAIL, NIL)");
    // A local of the procedure around taken as the parameter of an arrow.
    EXPECT_EQ(tree("proc(p) local v; begin v -> v + p end"),
              "_procdef(p, v, NIL, _procdef(v, NIL, arrow, _plus(DOM_VAR(0, 2), DOM_VAR(1, 3)), NIL, NIL, NIL, NIL, "
              "NIL, NIL, FAIL, NIL), NIL, NIL, NIL, NIL, NIL, NIL, FAIL, NIL)");
    Parsed p = parse("proc() option fast; begin end");
    EXPECT_EQ(p.output, "Error: line 1, col 19: Unknown procedure option 'fast'\n");
    p = parse("1 -> 2");
    EXPECT_EQ(p.output, "Error: line 1, col 4: 'identifier' expected\n");
}

TEST(Parser, DomainsCategoriesAndAxioms) {
    EXPECT_EQ(tree("domain D(a) local l; inherits Base; category Cat; x := 1; f; begin a + l end_domain"),
              "_constructor(_procdef(a, l, _exprseq(escape, noDebug), _plus(DOM_VAR(0, 3), DOM_VAR(0, 2)), D, NIL, NIL, "
              "NIL, NIL, NIL, FAIL, NIL), TRUE, DOM_LIST(Cat), DOM_LIST(), DOM_LIST(_equal(\"x\", 1), \"f\"), "
              "DOM_LIST(Base))");
    EXPECT_EQ(tree("category C axiom A1, A2; end"), "_constructor(NIL, FALSE, DOM_LIST(), DOM_LIST(A1, A2), DOM_LIST())");
    Parsed p = parse("axiom A; x; end_axiom");
    EXPECT_EQ(p.output, "Error: line 1, col 11: Unexpected 'identifier'\n");
    p = parse("domain D inherits A; inherits B; end");
    EXPECT_EQ(p.output, "Error: line 1, col 32: Multiple inherited domains, ignored\n");
    p = parse("domain 1 end");
    EXPECT_EQ(p.output, "Error: line 1, col 12: Invalid left-hand side in assignment\n");
}

TEST(Parser, SyntaxErrorsReportTheFirstProblemWithItsPosition) {
    Parsed p = parse("1 + )");
    EXPECT_EQ(p.output, "Error: line 1, col 5: Unexpected ')'\n");
    p = parse("f(1, 2");
    EXPECT_EQ(p.output, "Error: line 1, col 6: ')' expected\n");
    EXPECT_TRUE(p.incomplete);
    p = parse("a b; c");
    EXPECT_EQ(p.output, "Error: line 1, col 4: Unexpected 'identifier'\n");  // the position read so far
    p = parse("x :=");
    EXPECT_EQ(p.output, "Error: line 1, col 4: 'expression' expected\n");
    EXPECT_TRUE(p.incomplete);
    p = parse("if a then\n  b\nend_while");
    EXPECT_EQ(p.output, "Error: line 3, col 9: Unexpected 'end_while'\n");
    EXPECT_FALSE(p.incomplete);
    p = parse("[1, 2; 3]");
    EXPECT_EQ(p.output, "Error: line 1, col 6: ']' expected\n");
    EXPECT_EQ(p.tree, "");
}

TEST(Parser, DeepNestingIsAnErrorNotACrash) {
    const std::string deep = std::string(1000000, '(') + "1" + std::string(1000000, ')');
    Parsed p = parse(deep);
    EXPECT_EQ(p.tree, "");
    EXPECT_NE(p.output.find("Unexpected '('"), std::string::npos) << p.output.substr(0, 200);
}

TEST(Parser, AHugeStringLiteralReadsWhole) {
    std::string text = "\"" + std::string(20'000'000, 'a') + "\"";
    MPA_tree_reader r(text, false, 1);
    r.run();
    ASSERT_NE(r.result(), nullptr);
    EXPECT_EQ(MMM_string_view(MMM_child(r.result(), 0)).size(), 20'000'000u);
}

}  // namespace
