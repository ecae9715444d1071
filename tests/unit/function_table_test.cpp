// The function table's invariants: ids and names unique and in range, the walk order,
// and every code number naming one routine (with the check that finds the faults).
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "MFN_table.h"

namespace {

TEST(FunctionTable, IdsAndNamesAreUnique) {
    std::set<int> ids;
    std::set<std::string> names;
    for (const MFN_record* r : MFN_records()) {
        EXPECT_GT(r->id, 0) << r->name;
        EXPECT_LT(r->id, MFN_ID_COUNT) << r->name;
        EXPECT_TRUE(ids.insert(r->id).second) << "id " << r->id << " twice";
        EXPECT_TRUE(names.insert(r->name).second) << r->name << " twice";
    }
    EXPECT_EQ(ids.size(), size_t(MFN_RECORD_COUNT));

    // An id that carries no function has no name.
    for (int id = 0; id < MFN_ID_COUNT; ++id) {
        if (!MFN_record_by_id(id)) {
            EXPECT_STREQ(MFN_env_name(id), "") << id;
        }
    }
    for (int id : {-1, MFN_ID_COUNT, 100000}) EXPECT_STREQ(MFN_env_name(id), "");
    EXPECT_EQ(MFN_record_by_name("_plu"), nullptr);
    EXPECT_EQ(MFN_record_by_name("_plusx"), nullptr);
    EXPECT_EQ(MFN_record_by_name(""), nullptr);
}

TEST(FunctionTable, WalkGoesSpecialMathOperatorPlainInIdOrder) {
    const std::string kinds = "SMOF";
    size_t stage = 0;
    int last_id = 0;
    for (const MFN_record* r : MFN_records()) {
        size_t k = kinds.find(char(r->kind));
        ASSERT_NE(k, std::string::npos);
        ASSERT_GE(k, stage) << r->name << " out of kind order";
        if (k > stage) stage = k, last_id = 0;
        EXPECT_GT(r->id, last_id) << r->name;
        last_id = r->id;
    }
    EXPECT_EQ(stage, 3u);
}

TEST(FunctionTable, EachCodeNamesOneRoutine) {
    for (const std::string& f : MFN_check_codes()) ADD_FAILURE() << f;

    const MFN_code_entry* sym = MFN_find_code(1001);
    ASSERT_NE(sym, nullptr);
    EXPECT_EQ(sym->role, MTR_EVALUATOR);
    EXPECT_EQ(sym->carriers, 23);
    EXPECT_EQ(MFN_find_code(1000)->carriers, 9);
    EXPECT_EQ(MFN_find_code(401)->carriers, 7);
    EXPECT_EQ(MFN_find_code(1026)->carriers, 1);
    const MFN_code_entry* num = MFN_find_code(1333);
    ASSERT_NE(num, nullptr);
    EXPECT_EQ(num->role, MTR_NUMERIC);
    EXPECT_STREQ(num->record->name, "ibeta");
    const MFN_code_entry* pr = MFN_find_code(1120);
    ASSERT_NE(pr, nullptr);
    EXPECT_EQ(pr->role, MTR_PRINTER);
    EXPECT_STREQ(pr->record->name, "_not");
    EXPECT_STREQ(MFN_find_name_for_code(817), "_plus");
    EXPECT_STREQ(MFN_find_name_for_code(2000), "array");
    EXPECT_STREQ(MFN_find_name_for_code(409), "DOM_INTERVAL::arg");
    for (int c : {0, 99, MTR_CODE_PROCEDURE_CALL, MTR_CODE_OPERATOR_PRINTER,
                  MTR_CODE_CALL_PRINTER, 1027, 99999}) {
        EXPECT_EQ(MFN_find_code(c), nullptr) << c;
        EXPECT_STREQ(MFN_find_name_for_code(c), "") << c;
    }
}

Cell dummy_a(Cell e, int, unsigned, Cell) { return e; }
Cell dummy_b(Cell, int, unsigned, Cell e) { return e; }

TEST(FunctionTable, CodeCheckFindsNumbersThatNameTwoRoutines) {
    MFN_math_record sin{{MFN_MATH, 1, "sin", nullptr, 1001}, nullptr, 1317};
    MFN_math_record cos{{MFN_MATH, 2, "cos", nullptr, 1001}, nullptr, 1313};
    MFN_plain_record f{{MFN_PLAIN, 3, "f", nullptr, 610}};
    MFN_plain_record g{{MFN_PLAIN, 4, "g", nullptr, 611}};
    MFN_operator_record o{{MFN_OPERATOR, 5, "_o", nullptr, 817}, 1000, " + "};
    MFN_special_record s{{MFN_SPECIAL, 6, "_s", nullptr, 828}, nullptr, 1122, 1000, nullptr};
    auto faults = [](std::initializer_list<const MFN_record*> rs) {
        return MFN_check_codes(std::span<const MFN_record* const>(rs.begin(), rs.size()));
    };
    EXPECT_TRUE(faults({&sin, &cos, &f, &g, &o, &s}).empty());

    g.code = 610;  // two plain functions, one number
    EXPECT_EQ(faults({&f, &g}).size(), 1u);
    g.code = 1001;  // a plain function in the math functions' shared routine
    EXPECT_EQ(faults({&sin, &cos, &g}).size(), 1u);
    s.print_code = 1317;  // a printer numbered like a numeric routine
    auto fs = faults({&sin, &s});
    ASSERT_EQ(fs.size(), 1u);
    EXPECT_NE(fs[0].find("1317"), std::string::npos) << fs[0];
    o.code = MTR_CODE_OPERATOR_PRINTER;  // a routine on a number no record may carry
    EXPECT_EQ(faults({&o}).size(), 1u);
    f.code = 0;
    EXPECT_EQ(faults({&f}).size(), 1u);

    sin.routine = dummy_a;  // the shared number with two bodies, or one body and none
    EXPECT_EQ(faults({&sin, &cos}).size(), 1u);
    cos.routine = dummy_a;
    EXPECT_TRUE(faults({&sin, &cos}).empty());
    cos.routine = dummy_b;
    EXPECT_EQ(faults({&sin, &cos}).size(), 1u);
}

}  // namespace
