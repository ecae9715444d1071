// The registry of built-ins in a live session: faults are refused whole and named, a body
// installed after start is called at once, and the list of built-ins without a body is
// the one kept in docs/.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "MFN_table.h"
#include "MOU_print.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

std::string shown(std::string_view text) { return eval_shown(text, MOU_to_text); }

Cell answer_42(Cell, int, unsigned, Cell) { return MMM_make_integer(42); }
Cell other_body(Cell e, int, unsigned, Cell) { return MMM_retained(e); }
void no_printer(Cell*, int, Cell) {}

// The list in docs/ is what a real start leaves without a body: it shrinks with every
// built-in that gets one, and must be updated with it.
TEST(Registry, BuiltinsWithoutBodyAreTheListInDocs) {
    const std::vector<std::string> missing = MFN_missing_bodies();
    std::string now;
    for (const std::string& m : missing) now += m + "\n";
    std::ifstream in(std::string(TORVA_SOURCE_DIR) + "/docs/builtins_without_body.txt");
    ASSERT_TRUE(in) << "docs/builtins_without_body.txt is missing; it should read:\n" << now;
    std::vector<std::string> listed;
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#') listed.push_back(line);
    EXPECT_EQ(listed, missing) << "update docs/builtins_without_body.txt (" << missing.size()
                               << " entries now); it should read:\n" << now;
}

TEST(Registry, FaultsAreRefusedWholeAndNamed) {
    struct Case {
        std::vector<MFN_builtin> table;
        std::string fault;
    };
    const Case cases[] = {
        {{{.name = "no_such_builtin", .routine = answer_42}}, "unknown built-in `no_such_builtin`"},
        {{{.name = "_plus", .routine = other_body}}, "a second routine for `_plus`"},
        // abs shares code 1000 with the other number functions, which hold their body.
        {{{.name = "abs", .routine = other_body}}, "a second routine for `abs`"},
        {{{.name = "genident", .routine = answer_42}, {.name = "genident", .routine = answer_42}},
         "`genident` is named twice in one table"},
        {{{.name = "genident", .numeric = answer_42}}, "`genident` is no math function: it has no numeric routine"},
        {{{.name = "_plus", .printer = no_printer}}, "`_plus` is no special form: it has no printer"},
        {{{.name = "_if", .printer = no_printer}}, "a second printer for `_if`"},
        {{{.name = "genident"}}, "`genident` is given nothing"},
        // cos and sin share code 1001: one table cannot give them two routines.
        {{{.name = "cos", .routine = answer_42}, {.name = "sin", .routine = other_body}},
         "a second routine for `sin`: code 1001 has another one in `cos`"},
        // The sound first entry is not installed either: a table goes in whole or not at all.
        {{{.name = "genident", .routine = answer_42}, {.name = "no_such_builtin", .routine = answer_42}},
         "unknown built-in `no_such_builtin`"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(MFN_try_install(c.table), c.fault);
        EXPECT_EQ(MFN_record_by_name("genident")->routine, nullptr) << c.fault;
        EXPECT_EQ(MFN_record_by_name("cos")->routine, nullptr) << c.fault;
    }
    EXPECT_EQ(shown("x + x"), "2*x");  // _plus kept its body
}

TEST(Registry, ABodyInstalledAfterStartIsCalledAtOnce) {
    EXPECT_EQ(shown("genident(1, 2)"), "genident(1, 2)");  // no body: the call stays
    const MFN_builtin late[] = {{.name = "genident", .routine = answer_42, .args = {0, 1}}};
    ASSERT_EQ(MFN_try_install(late), "");
    EXPECT_EQ(shown("genident()"), "42");
    EXPECT_EQ(shown("genident(x)"), "42");
    // The declared count is checked before the body runs.
    EXPECT_EQ(eval_shown("genident(1, 2)", MOU_to_text, true), "Error 1004: Error: Wrong number of arguments [genident]");
    EXPECT_EQ(MFN_try_install(late), "a second routine for `genident`");
}

}  // namespace
