// The function table against the values the kernel's functions were given: ids,
// names, codes, priorities and print texts, written out below in the form they were
// listed in (table rows and running lists) and parsed here, apart from the table itself.
#include <gtest/gtest.h>

#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <string>

#include "MFN_table.h"

namespace {

const char* const operator_rows = R"(
| 1 | `_exprseq` | 809 | 20 | ", " |
| 2 | `_or` | 816 | 100 | " or " |
| 3 | `_and` | 805 | 200 | " and " |
| 5 | `_less` | 812 | 400 | " < " |
| 6 | `_leequal` | 811 | 400 | " <= " |
| 7 | `_equal` | 808 | 400 | " = " |
| 8 | `_unequal` | 820 | 400 | " <> " |
| 9 | `_range` | 819 | 500 | ".." |
| 10 | `_mod` | 800 | 900 | " mod " |
| 11 | `_div` | 814 | 900 | " div " |
| 12 | `_union` | 821 | 600 | " union " |
| 13 | `_minus` | 813 | 700 | " minus " |
| 14 | `_intersect` | 810 | 800 | " intersect " |
| 15 | `_plus` | 817 | 1000 | " + " |
| 16 | `_mult` | 815 | 1100 | "*" |
| 17 | `_power` | 818 | 1200 | "^" |
| 18 | `_concat` | 806 | 1700 | "." |
| 19 | `_fconcat` | 807 | 1500 | "@" |
| 41 | `_stmtseq` | 913 | 10 | "; " |
| 45 | `_lazy_and` | 835 | 200 | " and " |
| 46 | `_lazy_or` | 836 | 100 | " or " |
| 174 | `modp` | 801 | 900 | " mod " |
| 175 | `mods` | 802 | 900 | " mod " |
)";

const char* const special_rows = R"(
| 4 | `_seqgen` | 804 | 1118 | 300 | " $ " |
| 24 | `_divide` | 830 | 1124 | 1100 | "_divex" |
| 25 | `_invert` | 829 | 1121 | 1100 | "_invert" |
| 26 | `_subtract` | 831 | 1123 | 1100 | "_invert" |
| 27 | `_negate` | 828 | 1122 | 1000 | "_negate" |
| 28 | `_seqin` | 837 | 1125 | 300 | " $ " |
| 29 | `_seqstep` | 838 | 1127 | 300 | " $ " |
| 30 | `_assign` | 900 | 1102 | 3000 | none |
| 31 | `_if` | 908 | 1111 | 3000 | none |
| 32 | `_case` | 902 | 1104 | 3000 | none |
| 33 | `_for` | 903 | 1106 | 3000 | none |
| 34 | `_for_down` | 904 | 1107 | 3000 | none |
| 35 | `_for_in` | 905 | 1108 | 3000 | none |
| 36 | `_while` | 914 | 1119 | 3000 | none |
| 37 | `_repeat` | 912 | 1116 | 3000 | none |
| 38 | `_next` | 909 | 1113 | 3000 | none |
| 39 | `_break` | 901 | 1103 | 3000 | none |
| 40 | `_quit` | 911 | 1115 | 3000 | none |
| 43 | `_delete` | 917 | 1109 | 3000 | none |
| 47 | `_save` | 921 | 1126 | 3000 | none |
| 84 | `slot` | 803 | 1105 | 0 | "::" |
| 198 | `_index` | 102 | 1112 | 0 | none |
| 202 | `_not` | 105 | 1120 | 300 | "not " |
)";

const char* const math_list = R"(
132 `Si` 1001/1328, 133 `Ci` 1001/1329, 136 `abs` 1000/1301, 137 `arccos` 1001/1307, 138
`arcsin` 1001/1309, 139 `arcsinh` 1001/1308, 140 `arctan` 1001/1310, 141 `arctanh`
1001/1311, 142 `cos` 1001/1313, 143 `cosh` 1001/1312, 144 `exp` 1001/1314, 145 `ln`
1001/1315, 146 `sin` 1001/1317, 147 `sinh` 1001/1316, 148 `sqrt` 1001/1318, 149 `tan`
1001/1319, 150 `tanh` 1001/1320, 151 `arccosh` 1001/1306, 152 `zeta` 1001/1321, 153 `gamma`
1001/1322, 154 `psi` 1001/1323, 155 `erfc` 1001/1324, 156 `ceil` 1000/1302, 157 `floor`
1000/1303, 158 `frac` 1000/1304, 159 `isprime` 1000/1305, 160 `nextprime` 1000/1300, 161
`fact` 1000/1002, 162 `round` 1000/1003, 163 `trunc` 1000/1004, 179 `eint` 1001/1325, 183
`exp1` 1001/1332, 184 `ibeta` 1026/1333, 284 `DOM_INTERVAL::ln` 401/402, 285
`DOM_INTERVAL::exp` 401/403, 286 `DOM_INTERVAL::sin` 401/404, 287 `DOM_INTERVAL::sinh`
401/405, 288 `DOM_INTERVAL::arctan` 401/406, 290 `DOM_INTERVAL::arg` 401/409, 291
`DOM_INTERVAL::abs` 401/410.
)";

const char* const plain_list = R"(
42 `sysassign` 916, 44 `sysdelete` 918, 48 `_procdef` 103, 49 `funcenv` 823, 50 `builtin`
822, 51 `array` 2000, 52 `table` 2040, 53 `null` 1028, 54 `split` 1067, 55 `_frame` 150, 56
`_parentFrame` 152, 57 `_rootFrame` 151, 58 `print` 1030, 59 `input` 1021, 60 `textinput`
1037, 61 `write` 307, 62 `fread` 306, 63 `fclose` 300, 64 `finput` 301, 65 `fopen` 302, 66
`fprint` 303, 67 `ftextinput` 304, 68 `strprint` 1031, 69 `getlasterror` 1077, 70
`stdlib::writeContent` 315, 71 `fname` 308, 72 `readbytes` 309, 73 `writebytes` 310, 74
`flock` 311, 75 `unlock` 312, 76 `type` 610, 77 `nops` 604, 78 `op` 605, 79 `subs` 606, 80
`subsex` 607, 81 `subsop` 608, 82 `testtype` 609, 83 `val` 1040, 85 `extnops` 601, 86
`extop` 602, 87 `extsubsop` 603, 88 `map` 1005, 89 `sort` 1006, 90 `context` 827, 91 `id`
1050, 92 `domtype` 600, 93 `zip` 1057, 94 `select` 1058, 95 `time` 1038, 96 `rtime` 1033, 98
`history` 1017, 99 `last` 1023, 100 `reset` 1032, 101 `bytes` 1011, 102 `anames` 1007, 103
`system` 1053, 104 `protocol` 305, 105 `sysname` 1034, 106 `testargs` 1035, 107
`_parser_callback` 1049, 109 `getpid` 1059, 110 `float` 1015, 111 `bool` 1010, 112 `new`
825, 113 `newDomain` 824, 115 `hull` 400, 116 `interval` 407, 118 `share` 919, 119
`substring` 702, 120 `tbl2text` 703, 121 `text2tbl` 705, 122 `text2list` 704, 123 `strmatch`
701, 124 `text2expr` 1036, 125 `expr2text` 1048, 126 `stdlib::collapsews` 706, 130
`int2text` 1330, 131 `text2int` 1331, 135 `lambertW` 1803, 164 `igcd` 1041, 165 `ilcm` 1043,
166 `sign` 1044, 167 `frandom` 1800, 168 `ifactor` 1019, 169 `ithprime` 1022, 170 `phi`
1029, 173 `igcdex` 1042, 176 `max` 1045, 177 `min` 1046, 178 `powermod` 1047, 180 `igamma`
1051, 181 `isqrt` 1052, 182 `lllint` 1068, 185 `stdlib::isnonzero` 1801, 186
`stdlib::isless` 1802, 187 `lasterror` 1009, 188 `assignElements` 2001, 189 `indexval` 110,
190 `args` 106, 191 `return` 915, 192 `traperror` 1039, 193 `error` 1013, 194 `eval` 1014,
195 `append` 1008, 196 `diff` 2090, 197 `expand` 2060, 199 `hold` 1018, 200 `help` 1016, 201
`level` 1024, 203 `contains` 1012, 204 `gprof` 104, 207 `indets` 1020, 208 `genident` 1056,
209 `properties` 218, 210 `has` 1060, 211 `_pref` 1061, 213 `warning` 1025, 214 `poly` 518,
215 `expr` 506, 216 `degree` 502, 217 `degreevec` 503, 218 `lterm` 510, 219 `lcoeff` 509,
220 `tcoeff` 519, 221 `coeff` 500, 222 `mapcoeffs` 511, 223 `divide` 504, 224 `pdivide` 517,
225 `icontent` 501, 226 `multcoeffs` 512, 227 `norm` 513, 228 `evalp` 505, 229 `iszero` 508,
230 `genpoly` 507, 231 `nthterm` 516, 232 `nthcoeff` 515, 233 `nterms` 514, 234 `lmonomial`
520, 235 `nthmonomial` 521, 236 `Dpoly` 522, 237 `ldegree` 523, 238 `poly2list` 524, 239
`_float_mult` 832, 240 `_float_plus` 833, 241 `_float_power` 834, 242 `rpoly` 525, 243
`pindets` 526, 244 `monomials` 527, 245 `loadmod` 1202, 246 `unloadmod` 1203, 247 `external`
1201, 248 `userinfo` 1069, 249 `_userinfo_level` 1070, 250 `sysorder` 1062, 251 `length`
1071, 253 `protected` 1065, 254 `_parser_config` 1066, 255 `stdlib::from64` 314, 256
`stdlib::to64` 313, 257 `_op_plusmult` 107, 258 `_op_power` 108, 259 `_op_fconcat` 109, 261
`_domainfunccall` 111, 262 `outputFormat` 1074, 263 `outputType` 1075, 264 `debug` 2080, 265
`gcov` 2082, 266 `copyClosure` 2100, 267 `_act_proc_env` 116, 268 `_eval_entry` 117, 269
`clientObject` 1072, 270 `clientCall` 1073, 271 `clientMessage` 1076, 272 `rdround` 1250,
273 `rdint2float` 1251, 274 `rdabs` 1252, 275 `rdnegate` 1253, 276 `rdplus` 1254, 277
`rdsubtract` 1255, 278 `rdmult` 1256, 279 `rddivide` 1257, 280 `rdfloat2text` 1258, 281
`rdtext2float` 1259, 282 `rdisfinite` 1260, 283 `rdgetsign` 1261, 289
`DOM_INTERVAL::set2expr` 408, 292 `stdlib::hasfloat` 1063.
)";

const char* const unused_ids = "20 to 23, 97, 114, 117, 127 to 129, 134, 171, 172, 205, 206, 212, 252, 260 and those from 293 to 339";


struct Expected {
    MFN_kind kind = MFN_PLAIN;
    int id = 0;
    std::string name;
    int code = 0;
    int numeric_code = 0;
    int print_code = 0;
    int priority = 0;
    bool has_text = false;
    std::string text;
};

std::vector<Expected> expected_rows() {
    std::vector<Expected> out;
    auto row = [](MFN_kind kind, const std::smatch& m) {
        Expected e;
        e.kind = kind;
        e.id = std::stoi(m[1]);
        e.name = m[2];
        e.code = std::stoi(m[3]);
        return e;
    };
    auto text_of = [](Expected& e, const std::string& t) {
        e.has_text = t != "none";
        if (e.has_text) e.text = t.substr(1, t.size() - 2);
    };
    const std::regex op_row(R"(\| (\d+) \| `([^`]+)` \| (\d+) \| (\d+) \| ("[^"]*"|none) \|)");
    std::string s = operator_rows;
    for (std::sregex_iterator it(s.begin(), s.end(), op_row), end; it != end; ++it) {
        const auto& m = *it;
        Expected e = row(MFN_OPERATOR, m);
        e.print_code = MTR_CODE_OPERATOR_PRINTER;
        e.priority = std::stoi(m[4]);
        text_of(e, m[5]);
        out.push_back(e);
    }
    const std::regex sp_row(
        R"(\| (\d+) \| `([^`]+)` \| (\d+) \| (\d+) \| (\d+) \| ("[^"]*"|none) \|)");
    s = special_rows;
    for (std::sregex_iterator it(s.begin(), s.end(), sp_row), end; it != end; ++it) {
        const auto& m = *it;
        Expected e = row(MFN_SPECIAL, m);
        e.print_code = std::stoi(m[4]);
        e.priority = std::stoi(m[5]);
        text_of(e, m[6]);
        out.push_back(e);
    }
    const std::regex math_item(R"((\d+)\s+`([^`]+)`\s+(\d+)/(\d+))");
    s = math_list;
    for (std::sregex_iterator it(s.begin(), s.end(), math_item), end; it != end; ++it) {
        const auto& m = *it;
        Expected e = row(MFN_MATH, m);
        e.numeric_code = std::stoi(m[4]);
        e.print_code = MTR_CODE_CALL_PRINTER;
        out.push_back(e);
    }
    const std::regex plain_item(R"((\d+)\s+`([^`]+)`\s+(\d+))");
    s = plain_list;
    for (std::sregex_iterator it(s.begin(), s.end(), plain_item), end; it != end; ++it) {
        const auto& m = *it;
        Expected e = row(MFN_PLAIN, m);
        e.print_code = MTR_CODE_CALL_PRINTER;
        out.push_back(e);
    }
    return out;
}

std::set<int> parse_unused() {
    std::set<int> out;
    const std::regex item(R"((\d+)(?:\s+to\s+(\d+))?)");
    std::string s = unused_ids;
    for (std::sregex_iterator it(s.begin(), s.end(), item), end; it != end; ++it) {
        int a = std::stoi((*it)[1]);
        int b = (*it)[2].matched ? std::stoi((*it)[2]) : a;
        for (int i = a; i <= b; ++i) out.insert(i);
    }
    return out;
}

TEST(FunctionTable, EveryFunctionHasItsListedValues) {
    const std::vector<Expected> rows = expected_rows();
    ASSERT_EQ(rows.size(), size_t(MFN_RECORD_COUNT));  // the transcription parsed whole
    ASSERT_EQ(MFN_records().size(), size_t(MFN_RECORD_COUNT));

    for (const Expected& e : rows) {
        SCOPED_TRACE(std::to_string(e.id) + " " + e.name);
        const MFN_record* r = MFN_record_by_id(e.id);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->id, e.id);
        EXPECT_EQ(char(r->kind), char(e.kind));
        EXPECT_EQ(r->name, e.name);
        EXPECT_EQ(MFN_env_name(e.id), e.name);
        EXPECT_EQ(MFN_record_by_name(e.name), r);
        EXPECT_EQ(r->code, e.code);
        EXPECT_EQ(MFN_numeric_code(r), e.numeric_code);
        EXPECT_EQ(MFN_print_code(r), e.print_code);
        EXPECT_EQ(MFN_priority(r), e.priority);
        const char* text = MFN_print_text(r);
        EXPECT_EQ(text != nullptr, e.has_text);
        if (text && e.has_text) {
            EXPECT_EQ(text, e.text);
        }
    }
}

TEST(FunctionTable, IdsAndNamesAreUniqueAndTheFreeIdsStayFree) {
    std::set<int> ids;
    std::set<std::string> names;
    for (const MFN_record* r : MFN_records()) {
        EXPECT_GT(r->id, 0) << r->name;
        EXPECT_LT(r->id, MFN_ID_COUNT) << r->name;
        EXPECT_TRUE(ids.insert(r->id).second) << "id " << r->id << " twice";
        EXPECT_TRUE(names.insert(r->name).second) << r->name << " twice";
    }
    EXPECT_EQ(ids.size(), size_t(MFN_RECORD_COUNT));

    const std::set<int> unused = parse_unused();
    EXPECT_EQ(unused.size(), 65u);
    for (int id : unused) {
        EXPECT_EQ(MFN_record_by_id(id), nullptr) << id;
        EXPECT_STREQ(MFN_env_name(id), "") << id;
    }
    // 0 and 108 carry no function either, though they are not among the free ids above.
    for (int id = 0; id < MFN_ID_COUNT; ++id) {
        EXPECT_EQ(MFN_record_by_id(id) == nullptr, unused.count(id) || id == 0 || id == 108)
            << id;
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

TEST(FunctionTable, NamedIdsNameTheirFunctions) {
    const std::pair<int, const char*> named[] = {
        {MFN_ID_EXPRSEQ, "_exprseq"}, {MFN_ID_OR, "_or"}, {MFN_ID_AND, "_and"},
        {MFN_ID_SEQGEN, "_seqgen"}, {MFN_ID_LESS, "_less"}, {MFN_ID_LEEQUAL, "_leequal"},
        {MFN_ID_EQUAL, "_equal"}, {MFN_ID_UNEQUAL, "_unequal"}, {MFN_ID_RANGE, "_range"},
        {MFN_ID_MOD, "_mod"}, {MFN_ID_DIV, "_div"}, {MFN_ID_UNION, "_union"},
        {MFN_ID_MINUS, "_minus"}, {MFN_ID_INTERSECT, "_intersect"}, {MFN_ID_PLUS, "_plus"},
        {MFN_ID_MULT, "_mult"}, {MFN_ID_POWER, "_power"}, {MFN_ID_CONCAT, "_concat"},
        {MFN_ID_FCONCAT, "_fconcat"}, {MFN_ID_DIVIDE, "_divide"}, {MFN_ID_INVERT, "_invert"},
        {MFN_ID_SUBTRACT, "_subtract"}, {MFN_ID_NEGATE, "_negate"}, {MFN_ID_SEQIN, "_seqin"},
        {MFN_ID_SEQSTEP, "_seqstep"}, {MFN_ID_ASSIGN, "_assign"}, {MFN_ID_IF, "_if"},
        {MFN_ID_CASE, "_case"}, {MFN_ID_FOR, "_for"}, {MFN_ID_FOR_DOWN, "_for_down"},
        {MFN_ID_FOR_IN, "_for_in"}, {MFN_ID_WHILE, "_while"}, {MFN_ID_REPEAT, "_repeat"},
        {MFN_ID_NEXT, "_next"}, {MFN_ID_BREAK, "_break"}, {MFN_ID_QUIT, "_quit"},
        {MFN_ID_STMTSEQ, "_stmtseq"}, {MFN_ID_SYSASSIGN, "sysassign"},
        {MFN_ID_DELETE, "_delete"}, {MFN_ID_SYSDELETE, "sysdelete"},
        {MFN_ID_LAZY_AND, "_lazy_and"}, {MFN_ID_LAZY_OR, "_lazy_or"}, {MFN_ID_SAVE, "_save"},
        {MFN_ID_PROCDEF, "_procdef"}, {MFN_ID_FUNCENV, "funcenv"},
        {MFN_ID_BUILTIN, "builtin"}, {MFN_ID_TABLE, "table"}, {MFN_ID_FRAME, "_frame"},
        {MFN_ID_PARENT_FRAME, "_parentFrame"}, {MFN_ID_ROOT_FRAME, "_rootFrame"},
        {MFN_ID_TYPE, "type"}, {MFN_ID_SLOT, "slot"}, {MFN_ID_LAST, "last"},
        {MFN_ID_SYSTEM, "system"}, {MFN_ID_PARSER_CALLBACK, "_parser_callback"},
        {MFN_ID_HULL, "hull"}, {MFN_ID_FACT, "fact"}, {MFN_ID_MODP, "modp"},
        {MFN_ID_MODS, "mods"}, {MFN_ID_INDEXVAL, "indexval"}, {MFN_ID_ARGS, "args"},
        {MFN_ID_RETURN, "return"}, {MFN_ID_INDEX, "_index"}, {MFN_ID_HOLD, "hold"},
        {MFN_ID_HELP, "help"}, {MFN_ID_NOT, "_not"}, {MFN_ID_POLY_DIVIDE, "divide"},
        {MFN_ID_FLOAT_MULT, "_float_mult"}, {MFN_ID_FLOAT_PLUS, "_float_plus"},
        {MFN_ID_FLOAT_POWER, "_float_power"}, {MFN_ID_OP_PLUSMULT, "_op_plusmult"},
        {MFN_ID_OP_POWER, "_op_power"}, {MFN_ID_OP_FCONCAT, "_op_fconcat"},
        {MFN_ID_DOMAINFUNCCALL, "_domainfunccall"}, {MFN_ID_ACT_PROC_ENV, "_act_proc_env"},
        {MFN_ID_EVAL_ENTRY, "_eval_entry"},
    };
    for (auto [id, name] : named) EXPECT_STREQ(MFN_env_name(id), name) << id;
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
