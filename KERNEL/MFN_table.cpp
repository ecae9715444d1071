#include "MFN_table.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>

#include "MSY_process.h"

namespace {

// The records. Every routine starts null; the registry gives each its body. Ids and codes
// are constants of the stored format.

constinit MFN_special_record special_records[] = {
    // kind, id, name, routine, code; print routine, print code, priority, print text
    {{MFN_SPECIAL,   4, "_seqgen",     nullptr, 804}, nullptr, 1118,  300, " $ "},
    {{MFN_SPECIAL,  24, "_divide",     nullptr, 830}, nullptr, 1124, 1100, "_divex"},
    {{MFN_SPECIAL,  25, "_invert",     nullptr, 829}, nullptr, 1121, 1100, "_invert"},
    {{MFN_SPECIAL,  26, "_subtract",   nullptr, 831}, nullptr, 1123, 1100, "_invert"},
    {{MFN_SPECIAL,  27, "_negate",     nullptr, 828}, nullptr, 1122, 1000, "_negate"},
    {{MFN_SPECIAL,  28, "_seqin",      nullptr, 837}, nullptr, 1125,  300, " $ "},
    {{MFN_SPECIAL,  29, "_seqstep",    nullptr, 838}, nullptr, 1127,  300, " $ "},
    {{MFN_SPECIAL,  30, "_assign",     nullptr, 900}, nullptr, 1102, 3000, nullptr},
    {{MFN_SPECIAL,  31, "_if",         nullptr, 908}, nullptr, 1111, 3000, nullptr},
    {{MFN_SPECIAL,  32, "_case",       nullptr, 902}, nullptr, 1104, 3000, nullptr},
    {{MFN_SPECIAL,  33, "_for",        nullptr, 903}, nullptr, 1106, 3000, nullptr},
    {{MFN_SPECIAL,  34, "_for_down",   nullptr, 904}, nullptr, 1107, 3000, nullptr},
    {{MFN_SPECIAL,  35, "_for_in",     nullptr, 905}, nullptr, 1108, 3000, nullptr},
    {{MFN_SPECIAL,  36, "_while",      nullptr, 914}, nullptr, 1119, 3000, nullptr},
    {{MFN_SPECIAL,  37, "_repeat",     nullptr, 912}, nullptr, 1116, 3000, nullptr},
    {{MFN_SPECIAL,  38, "_next",       nullptr, 909}, nullptr, 1113, 3000, nullptr},
    {{MFN_SPECIAL,  39, "_break",      nullptr, 901}, nullptr, 1103, 3000, nullptr},
    {{MFN_SPECIAL,  40, "_quit",       nullptr, 911}, nullptr, 1115, 3000, nullptr},
    {{MFN_SPECIAL,  43, "_delete",     nullptr, 917}, nullptr, 1109, 3000, nullptr},
    {{MFN_SPECIAL,  47, "_save",       nullptr, 921}, nullptr, 1126, 3000, nullptr},
    {{MFN_SPECIAL,  84, "slot",        nullptr, 803}, nullptr, 1105,    0, "::"},
    {{MFN_SPECIAL, 198, "_index",      nullptr, 102}, nullptr, 1112,    0, nullptr},
    {{MFN_SPECIAL, 202, "_not",        nullptr, 105}, nullptr, 1120,  300, "not "},
};

constinit MFN_math_record math_records[] = {
    // kind, id, name, symbolic routine, code; numeric routine, numeric code
    {{MFN_MATH, 132, "Si",                     nullptr, 1001}, nullptr, 1328},
    {{MFN_MATH, 133, "Ci",                     nullptr, 1001}, nullptr, 1329},
    {{MFN_MATH, 136, "abs",                    nullptr, 1000}, nullptr, 1301},
    {{MFN_MATH, 137, "arccos",                 nullptr, 1001}, nullptr, 1307},
    {{MFN_MATH, 138, "arcsin",                 nullptr, 1001}, nullptr, 1309},
    {{MFN_MATH, 139, "arcsinh",                nullptr, 1001}, nullptr, 1308},
    {{MFN_MATH, 140, "arctan",                 nullptr, 1001}, nullptr, 1310},
    {{MFN_MATH, 141, "arctanh",                nullptr, 1001}, nullptr, 1311},
    {{MFN_MATH, 142, "cos",                    nullptr, 1001}, nullptr, 1313},
    {{MFN_MATH, 143, "cosh",                   nullptr, 1001}, nullptr, 1312},
    {{MFN_MATH, 144, "exp",                    nullptr, 1001}, nullptr, 1314},
    {{MFN_MATH, 145, "ln",                     nullptr, 1001}, nullptr, 1315},
    {{MFN_MATH, 146, "sin",                    nullptr, 1001}, nullptr, 1317},
    {{MFN_MATH, 147, "sinh",                   nullptr, 1001}, nullptr, 1316},
    {{MFN_MATH, 148, "sqrt",                   nullptr, 1001}, nullptr, 1318},
    {{MFN_MATH, 149, "tan",                    nullptr, 1001}, nullptr, 1319},
    {{MFN_MATH, 150, "tanh",                   nullptr, 1001}, nullptr, 1320},
    {{MFN_MATH, 151, "arccosh",                nullptr, 1001}, nullptr, 1306},
    {{MFN_MATH, 152, "zeta",                   nullptr, 1001}, nullptr, 1321},
    {{MFN_MATH, 153, "gamma",                  nullptr, 1001}, nullptr, 1322},
    {{MFN_MATH, 154, "psi",                    nullptr, 1001}, nullptr, 1323},
    {{MFN_MATH, 155, "erfc",                   nullptr, 1001}, nullptr, 1324},
    {{MFN_MATH, 156, "ceil",                   nullptr, 1000}, nullptr, 1302},
    {{MFN_MATH, 157, "floor",                  nullptr, 1000}, nullptr, 1303},
    {{MFN_MATH, 158, "frac",                   nullptr, 1000}, nullptr, 1304},
    {{MFN_MATH, 159, "isprime",                nullptr, 1000}, nullptr, 1305},
    {{MFN_MATH, 160, "nextprime",              nullptr, 1000}, nullptr, 1300},
    {{MFN_MATH, 161, "fact",                   nullptr, 1000}, nullptr, 1002},
    {{MFN_MATH, 162, "round",                  nullptr, 1000}, nullptr, 1003},
    {{MFN_MATH, 163, "trunc",                  nullptr, 1000}, nullptr, 1004},
    {{MFN_MATH, 179, "eint",                   nullptr, 1001}, nullptr, 1325},
    {{MFN_MATH, 183, "exp1",                   nullptr, 1001}, nullptr, 1332},
    {{MFN_MATH, 184, "ibeta",                  nullptr, 1026}, nullptr, 1333},
    {{MFN_MATH, 284, "DOM_INTERVAL::ln",       nullptr,  401}, nullptr, 402},
    {{MFN_MATH, 285, "DOM_INTERVAL::exp",      nullptr,  401}, nullptr, 403},
    {{MFN_MATH, 286, "DOM_INTERVAL::sin",      nullptr,  401}, nullptr, 404},
    {{MFN_MATH, 287, "DOM_INTERVAL::sinh",     nullptr,  401}, nullptr, 405},
    {{MFN_MATH, 288, "DOM_INTERVAL::arctan",   nullptr,  401}, nullptr, 406},
    {{MFN_MATH, 290, "DOM_INTERVAL::arg",      nullptr,  401}, nullptr, 409},
    {{MFN_MATH, 291, "DOM_INTERVAL::abs",      nullptr,  401}, nullptr, 410},
};

constinit MFN_operator_record operator_records[] = {
    // kind, id, name, routine, code; priority, print text
    {{MFN_OPERATOR,   1, "_exprseq",   nullptr, 809},   20, ", "},
    {{MFN_OPERATOR,   2, "_or",        nullptr, 816},  100, " or "},
    {{MFN_OPERATOR,   3, "_and",       nullptr, 805},  200, " and "},
    {{MFN_OPERATOR,   5, "_less",      nullptr, 812},  400, " < "},
    {{MFN_OPERATOR,   6, "_leequal",   nullptr, 811},  400, " <= "},
    {{MFN_OPERATOR,   7, "_equal",     nullptr, 808},  400, " = "},
    {{MFN_OPERATOR,   8, "_unequal",   nullptr, 820},  400, " <> "},
    {{MFN_OPERATOR,   9, "_range",     nullptr, 819},  500, ".."},
    {{MFN_OPERATOR,  10, "_mod",       nullptr, 800},  900, " mod "},
    {{MFN_OPERATOR,  11, "_div",       nullptr, 814},  900, " div "},
    {{MFN_OPERATOR,  12, "_union",     nullptr, 821},  600, " union "},
    {{MFN_OPERATOR,  13, "_minus",     nullptr, 813},  700, " minus "},
    {{MFN_OPERATOR,  14, "_intersect", nullptr, 810},  800, " intersect "},
    {{MFN_OPERATOR,  15, "_plus",      nullptr, 817}, 1000, " + "},
    {{MFN_OPERATOR,  16, "_mult",      nullptr, 815}, 1100, "*"},
    {{MFN_OPERATOR,  17, "_power",     nullptr, 818}, 1200, "^"},
    {{MFN_OPERATOR,  18, "_concat",    nullptr, 806}, 1700, "."},
    {{MFN_OPERATOR,  19, "_fconcat",   nullptr, 807}, 1500, "@"},
    {{MFN_OPERATOR,  41, "_stmtseq",   nullptr, 913},   10, "; "},
    {{MFN_OPERATOR,  45, "_lazy_and",  nullptr, 835},  200, " and "},
    {{MFN_OPERATOR,  46, "_lazy_or",   nullptr, 836},  100, " or "},
    {{MFN_OPERATOR, 174, "modp",       nullptr, 801},  900, " mod "},
    {{MFN_OPERATOR, 175, "mods",       nullptr, 802},  900, " mod "},
};

constinit MFN_plain_record plain_records[] = {
    // kind, id, name, routine, code
    {{MFN_PLAIN,  42, "sysassign",               nullptr,  916}},
    {{MFN_PLAIN,  44, "sysdelete",               nullptr,  918}},
    {{MFN_PLAIN,  48, "_procdef",                nullptr,  103}},
    {{MFN_PLAIN,  49, "funcenv",                 nullptr,  823}},
    {{MFN_PLAIN,  50, "builtin",                 nullptr,  822}},
    {{MFN_PLAIN,  51, "array",                   nullptr, 2000}},
    {{MFN_PLAIN,  52, "table",                   nullptr, 2040}},
    {{MFN_PLAIN,  53, "null",                    nullptr, 1028}},
    {{MFN_PLAIN,  54, "split",                   nullptr, 1067}},
    {{MFN_PLAIN,  55, "_frame",                  nullptr,  150}},
    {{MFN_PLAIN,  56, "_parentFrame",            nullptr,  152}},
    {{MFN_PLAIN,  57, "_rootFrame",              nullptr,  151}},
    {{MFN_PLAIN,  58, "print",                   nullptr, 1030}},
    {{MFN_PLAIN,  59, "input",                   nullptr, 1021}},
    {{MFN_PLAIN,  60, "textinput",               nullptr, 1037}},
    {{MFN_PLAIN,  61, "write",                   nullptr,  307}},
    {{MFN_PLAIN,  62, "fread",                   nullptr,  306}},
    {{MFN_PLAIN,  63, "fclose",                  nullptr,  300}},
    {{MFN_PLAIN,  64, "finput",                  nullptr,  301}},
    {{MFN_PLAIN,  65, "fopen",                   nullptr,  302}},
    {{MFN_PLAIN,  66, "fprint",                  nullptr,  303}},
    {{MFN_PLAIN,  67, "ftextinput",              nullptr,  304}},
    {{MFN_PLAIN,  68, "strprint",                nullptr, 1031}},
    {{MFN_PLAIN,  69, "getlasterror",            nullptr, 1077}},
    {{MFN_PLAIN,  70, "stdlib::writeContent",    nullptr,  315}},
    {{MFN_PLAIN,  71, "fname",                   nullptr,  308}},
    {{MFN_PLAIN,  72, "readbytes",               nullptr,  309}},
    {{MFN_PLAIN,  73, "writebytes",              nullptr,  310}},
    {{MFN_PLAIN,  74, "flock",                   nullptr,  311}},
    {{MFN_PLAIN,  75, "unlock",                  nullptr,  312}},
    {{MFN_PLAIN,  76, "type",                    nullptr,  610}},
    {{MFN_PLAIN,  77, "nops",                    nullptr,  604}},
    {{MFN_PLAIN,  78, "op",                      nullptr,  605}},
    {{MFN_PLAIN,  79, "subs",                    nullptr,  606}},
    {{MFN_PLAIN,  80, "subsex",                  nullptr,  607}},
    {{MFN_PLAIN,  81, "subsop",                  nullptr,  608}},
    {{MFN_PLAIN,  82, "testtype",                nullptr,  609}},
    {{MFN_PLAIN,  83, "val",                     nullptr, 1040}},
    {{MFN_PLAIN,  85, "extnops",                 nullptr,  601}},
    {{MFN_PLAIN,  86, "extop",                   nullptr,  602}},
    {{MFN_PLAIN,  87, "extsubsop",               nullptr,  603}},
    {{MFN_PLAIN,  88, "map",                     nullptr, 1005}},
    {{MFN_PLAIN,  89, "sort",                    nullptr, 1006}},
    {{MFN_PLAIN,  90, "context",                 nullptr,  827}},
    {{MFN_PLAIN,  91, "id",                      nullptr, 1050}},
    {{MFN_PLAIN,  92, "domtype",                 nullptr,  600}},
    {{MFN_PLAIN,  93, "zip",                     nullptr, 1057}},
    {{MFN_PLAIN,  94, "select",                  nullptr, 1058}},
    {{MFN_PLAIN,  95, "time",                    nullptr, 1038}},
    {{MFN_PLAIN,  96, "rtime",                   nullptr, 1033}},
    {{MFN_PLAIN,  98, "history",                 nullptr, 1017}},
    {{MFN_PLAIN,  99, "last",                    nullptr, 1023}},
    {{MFN_PLAIN, 100, "reset",                   nullptr, 1032}},
    {{MFN_PLAIN, 101, "bytes",                   nullptr, 1011}},
    {{MFN_PLAIN, 102, "anames",                  nullptr, 1007}},
    {{MFN_PLAIN, 103, "system",                  nullptr, 1053}},
    {{MFN_PLAIN, 104, "protocol",                nullptr,  305}},
    {{MFN_PLAIN, 105, "sysname",                 nullptr, 1034}},
    {{MFN_PLAIN, 106, "testargs",                nullptr, 1035}},
    {{MFN_PLAIN, 107, "_parser_callback",        nullptr, 1049}},
    {{MFN_PLAIN, 109, "getpid",                  nullptr, 1059}},
    {{MFN_PLAIN, 110, "float",                   nullptr, 1015}},
    {{MFN_PLAIN, 111, "bool",                    nullptr, 1010}},
    {{MFN_PLAIN, 112, "new",                     nullptr,  825}},
    {{MFN_PLAIN, 113, "newDomain",               nullptr,  824}},
    {{MFN_PLAIN, 115, "hull",                    nullptr,  400}},
    {{MFN_PLAIN, 116, "interval",                nullptr,  407}},
    {{MFN_PLAIN, 118, "share",                   nullptr,  919}},
    {{MFN_PLAIN, 119, "substring",               nullptr,  702}},
    {{MFN_PLAIN, 120, "tbl2text",                nullptr,  703}},
    {{MFN_PLAIN, 121, "text2tbl",                nullptr,  705}},
    {{MFN_PLAIN, 122, "text2list",               nullptr,  704}},
    {{MFN_PLAIN, 123, "strmatch",                nullptr,  701}},
    {{MFN_PLAIN, 124, "text2expr",               nullptr, 1036}},
    {{MFN_PLAIN, 125, "expr2text",               nullptr, 1048}},
    {{MFN_PLAIN, 126, "stdlib::collapsews",      nullptr,  706}},
    {{MFN_PLAIN, 130, "int2text",                nullptr, 1330}},
    {{MFN_PLAIN, 131, "text2int",                nullptr, 1331}},
    {{MFN_PLAIN, 135, "lambertW",                nullptr, 1803}},
    {{MFN_PLAIN, 164, "igcd",                    nullptr, 1041}},
    {{MFN_PLAIN, 165, "ilcm",                    nullptr, 1043}},
    {{MFN_PLAIN, 166, "sign",                    nullptr, 1044}},
    {{MFN_PLAIN, 167, "frandom",                 nullptr, 1800}},
    {{MFN_PLAIN, 168, "ifactor",                 nullptr, 1019}},
    {{MFN_PLAIN, 169, "ithprime",                nullptr, 1022}},
    {{MFN_PLAIN, 170, "phi",                     nullptr, 1029}},
    {{MFN_PLAIN, 173, "igcdex",                  nullptr, 1042}},
    {{MFN_PLAIN, 176, "max",                     nullptr, 1045}},
    {{MFN_PLAIN, 177, "min",                     nullptr, 1046}},
    {{MFN_PLAIN, 178, "powermod",                nullptr, 1047}},
    {{MFN_PLAIN, 180, "igamma",                  nullptr, 1051}},
    {{MFN_PLAIN, 181, "isqrt",                   nullptr, 1052}},
    {{MFN_PLAIN, 182, "lllint",                  nullptr, 1068}},
    {{MFN_PLAIN, 185, "stdlib::isnonzero",       nullptr, 1801}},
    {{MFN_PLAIN, 186, "stdlib::isless",          nullptr, 1802}},
    {{MFN_PLAIN, 187, "lasterror",               nullptr, 1009}},
    {{MFN_PLAIN, 188, "assignElements",          nullptr, 2001}},
    {{MFN_PLAIN, 189, "indexval",                nullptr,  110}},
    {{MFN_PLAIN, 190, "args",                    nullptr,  106}},
    {{MFN_PLAIN, 191, "return",                  nullptr,  915}},
    {{MFN_PLAIN, 192, "traperror",               nullptr, 1039}},
    {{MFN_PLAIN, 193, "error",                   nullptr, 1013}},
    {{MFN_PLAIN, 194, "eval",                    nullptr, 1014}},
    {{MFN_PLAIN, 195, "append",                  nullptr, 1008}},
    {{MFN_PLAIN, 196, "diff",                    nullptr, 2090}},
    {{MFN_PLAIN, 197, "expand",                  nullptr, 2060}},
    {{MFN_PLAIN, 199, "hold",                    nullptr, 1018}},
    {{MFN_PLAIN, 200, "help",                    nullptr, 1016}},
    {{MFN_PLAIN, 201, "level",                   nullptr, 1024}},
    {{MFN_PLAIN, 203, "contains",                nullptr, 1012}},
    {{MFN_PLAIN, 204, "gprof",                   nullptr,  104}},
    {{MFN_PLAIN, 207, "indets",                  nullptr, 1020}},
    {{MFN_PLAIN, 208, "genident",                nullptr, 1056}},
    {{MFN_PLAIN, 209, "properties",              nullptr,  218}},
    {{MFN_PLAIN, 210, "has",                     nullptr, 1060}},
    {{MFN_PLAIN, 211, "_pref",                   nullptr, 1061}},
    {{MFN_PLAIN, 213, "warning",                 nullptr, 1025}},
    {{MFN_PLAIN, 214, "poly",                    nullptr,  518}},
    {{MFN_PLAIN, 215, "expr",                    nullptr,  506}},
    {{MFN_PLAIN, 216, "degree",                  nullptr,  502}},
    {{MFN_PLAIN, 217, "degreevec",               nullptr,  503}},
    {{MFN_PLAIN, 218, "lterm",                   nullptr,  510}},
    {{MFN_PLAIN, 219, "lcoeff",                  nullptr,  509}},
    {{MFN_PLAIN, 220, "tcoeff",                  nullptr,  519}},
    {{MFN_PLAIN, 221, "coeff",                   nullptr,  500}},
    {{MFN_PLAIN, 222, "mapcoeffs",               nullptr,  511}},
    {{MFN_PLAIN, 223, "divide",                  nullptr,  504}},
    {{MFN_PLAIN, 224, "pdivide",                 nullptr,  517}},
    {{MFN_PLAIN, 225, "icontent",                nullptr,  501}},
    {{MFN_PLAIN, 226, "multcoeffs",              nullptr,  512}},
    {{MFN_PLAIN, 227, "norm",                    nullptr,  513}},
    {{MFN_PLAIN, 228, "evalp",                   nullptr,  505}},
    {{MFN_PLAIN, 229, "iszero",                  nullptr,  508}},
    {{MFN_PLAIN, 230, "genpoly",                 nullptr,  507}},
    {{MFN_PLAIN, 231, "nthterm",                 nullptr,  516}},
    {{MFN_PLAIN, 232, "nthcoeff",                nullptr,  515}},
    {{MFN_PLAIN, 233, "nterms",                  nullptr,  514}},
    {{MFN_PLAIN, 234, "lmonomial",               nullptr,  520}},
    {{MFN_PLAIN, 235, "nthmonomial",             nullptr,  521}},
    {{MFN_PLAIN, 236, "Dpoly",                   nullptr,  522}},
    {{MFN_PLAIN, 237, "ldegree",                 nullptr,  523}},
    {{MFN_PLAIN, 238, "poly2list",               nullptr,  524}},
    {{MFN_PLAIN, 239, "_float_mult",             nullptr,  832}},
    {{MFN_PLAIN, 240, "_float_plus",             nullptr,  833}},
    {{MFN_PLAIN, 241, "_float_power",            nullptr,  834}},
    {{MFN_PLAIN, 242, "rpoly",                   nullptr,  525}},
    {{MFN_PLAIN, 243, "pindets",                 nullptr,  526}},
    {{MFN_PLAIN, 244, "monomials",               nullptr,  527}},
    {{MFN_PLAIN, 245, "loadmod",                 nullptr, 1202}},
    {{MFN_PLAIN, 246, "unloadmod",               nullptr, 1203}},
    {{MFN_PLAIN, 247, "external",                nullptr, 1201}},
    {{MFN_PLAIN, 248, "userinfo",                nullptr, 1069}},
    {{MFN_PLAIN, 249, "_userinfo_level",         nullptr, 1070}},
    {{MFN_PLAIN, 250, "sysorder",                nullptr, 1062}},
    {{MFN_PLAIN, 251, "length",                  nullptr, 1071}},
    {{MFN_PLAIN, 253, "protected",               nullptr, 1065}},
    {{MFN_PLAIN, 254, "_parser_config",          nullptr, 1066}},
    {{MFN_PLAIN, 255, "stdlib::from64",          nullptr,  314}},
    {{MFN_PLAIN, 256, "stdlib::to64",            nullptr,  313}},
    {{MFN_PLAIN, 257, "_op_plusmult",            nullptr,  107}},
    {{MFN_PLAIN, 258, "_op_power",               nullptr,  108}},
    {{MFN_PLAIN, 259, "_op_fconcat",             nullptr,  109}},
    {{MFN_PLAIN, 261, "_domainfunccall",         nullptr,  111}},
    {{MFN_PLAIN, 262, "outputFormat",            nullptr, 1074}},
    {{MFN_PLAIN, 263, "outputType",              nullptr, 1075}},
    {{MFN_PLAIN, 264, "debug",                   nullptr, 2080}},
    {{MFN_PLAIN, 265, "gcov",                    nullptr, 2082}},
    {{MFN_PLAIN, 266, "copyClosure",             nullptr, 2100}},
    {{MFN_PLAIN, 267, "_act_proc_env",           nullptr,  116}},
    {{MFN_PLAIN, 268, "_eval_entry",             nullptr,  117}},
    {{MFN_PLAIN, 269, "clientObject",            nullptr, 1072}},
    {{MFN_PLAIN, 270, "clientCall",              nullptr, 1073}},
    {{MFN_PLAIN, 271, "clientMessage",           nullptr, 1076}},
    {{MFN_PLAIN, 272, "rdround",                 nullptr, 1250}},
    {{MFN_PLAIN, 273, "rdint2float",             nullptr, 1251}},
    {{MFN_PLAIN, 274, "rdabs",                   nullptr, 1252}},
    {{MFN_PLAIN, 275, "rdnegate",                nullptr, 1253}},
    {{MFN_PLAIN, 276, "rdplus",                  nullptr, 1254}},
    {{MFN_PLAIN, 277, "rdsubtract",              nullptr, 1255}},
    {{MFN_PLAIN, 278, "rdmult",                  nullptr, 1256}},
    {{MFN_PLAIN, 279, "rddivide",                nullptr, 1257}},
    {{MFN_PLAIN, 280, "rdfloat2text",            nullptr, 1258}},
    {{MFN_PLAIN, 281, "rdtext2float",            nullptr, 1259}},
    {{MFN_PLAIN, 282, "rdisfinite",              nullptr, 1260}},
    {{MFN_PLAIN, 283, "rdgetsign",               nullptr, 1261}},
    {{MFN_PLAIN, 289, "DOM_INTERVAL::set2expr",  nullptr,  408}},
    {{MFN_PLAIN, 292, "stdlib::hasfloat",        nullptr, 1063}},
};

constexpr size_t record_count =
    std::size(special_records) + std::size(math_records) + std::size(operator_records) +
    std::size(plain_records);
static_assert(record_count == MFN_RECORD_COUNT, "the table holds every function once");

// Walk order S, M, O, F: the order in which start interns the names and builds the
// environments. Made of addresses only, so it is a constant too.
constinit const std::array<MFN_record*, record_count> walk_order = [] {
    std::array<MFN_record*, record_count> a{};
    size_t k = 0;
    for (auto& r : special_records) a[k++] = &r;
    for (auto& r : math_records) a[k++] = &r;
    for (auto& r : operator_records) a[k++] = &r;
    for (auto& r : plain_records) a[k++] = &r;
    return a;
}();

// Which parts of a record the registry has given.
constexpr uint8_t GIVEN_ROUTINE = 1, GIVEN_NUMERIC = 2, GIVEN_PRINTER = 4, GIVEN_FRONT = 8, GIVEN_ARGS = 16;

struct Index {
    std::array<MFN_record*, MFN_ID_COUNT> by_id{};
    std::vector<MFN_record*> by_name;  // sorted by name
    std::vector<MFN_code_entry> codes;  // sorted by code, one entry per (code, role)
};

struct Use {
    int code;
    MTR_role role;
    const MFN_record* record;
    MFN_routine fn;  // null for a printer: printers are never shared
};

const char* role_text(MTR_role role) {
    switch (role) {
        case MTR_EVALUATOR: return "routine";
        case MTR_NUMERIC: return "numeric routine";
        case MTR_PRINTER: return "printer";
    }
    return "?";
}

// Every code a record carries, with the evaluator or numeric body it holds for it.
void collect_uses(const MFN_record* r, std::vector<Use>& out) {
    out.push_back({r->code, MTR_EVALUATOR, r, r->routine});
    if (r->kind == MFN_MATH) {
        auto m = static_cast<const MFN_math_record*>(r);
        out.push_back({m->numeric_code, MTR_NUMERIC, r, m->numeric_routine});
    } else if (r->kind == MFN_SPECIAL) {
        auto s = static_cast<const MFN_special_record*>(r);
        out.push_back({s->print_code, MTR_PRINTER, r, nullptr});
    }
}

// Built on first use, after all constant initialisation: no order of static
// constructors matters. Ids and codes never change, so neither does the index.
const Index& table_index() {
    static const Index idx = [] {
        Index x;
        for (MFN_record* r : walk_order) {
            if (r->id >= 0 && r->id < MFN_ID_COUNT && !x.by_id[r->id]) x.by_id[r->id] = r;
            // Operators take their operands in their own context.
            const bool op = (r->id >= 1 && r->id <= 19) || (r->id >= 24 && r->id <= 28);
            if (op && !(r->given & GIVEN_FRONT)) r->front.arg_context = r->id;
        }
        x.by_name.assign(walk_order.begin(), walk_order.end());
        std::stable_sort(x.by_name.begin(), x.by_name.end(), [](auto a, auto b) {
            return std::strcmp(a->name, b->name) < 0;
        });
        std::vector<Use> uses;
        for (MFN_record* r : walk_order) collect_uses(r, uses);
        for (const Use& u : uses) {
            auto it = std::find_if(x.codes.begin(), x.codes.end(), [&](const MFN_code_entry& e) {
                return e.code == u.code && e.role == u.role;
            });
            if (it == x.codes.end())
                x.codes.push_back({u.code, u.role, u.record, 1});
            else
                ++it->carriers;
        }
        std::stable_sort(x.codes.begin(), x.codes.end(),
                         [](const auto& a, const auto& b) { return a.code < b.code; });
        return x;
    }();
    return idx;
}

MFN_record* mutable_by_id(int id) {
    return id >= 0 && id < MFN_ID_COUNT ? table_index().by_id[id] : nullptr;
}

std::string quoted(const MFN_record* r) { return std::string("`") + r->name + "`"; }

}  // namespace

std::span<const MFN_record* const> MFN_records() {
    return {walk_order.data(), walk_order.size()};
}

const MFN_record* MFN_record_by_id(int id) { return mutable_by_id(id); }

const MFN_record* MFN_record_by_name(std::string_view name) {
    const auto& v = table_index().by_name;
    auto it = std::lower_bound(v.begin(), v.end(), name,
                               [](const MFN_record* r, std::string_view n) { return r->name < n; });
    return it != v.end() && (*it)->name == name ? *it : nullptr;
}

const char* MFN_env_name(int id) {
    const MFN_record* r = MFN_record_by_id(id);
    return r ? r->name : "";
}

int MFN_numeric_code(const MFN_record* r) {
    return r->kind == MFN_MATH ? static_cast<const MFN_math_record*>(r)->numeric_code : 0;
}

MFN_routine MFN_numeric_routine(const MFN_record* r) {
    return r->kind == MFN_MATH ? static_cast<const MFN_math_record*>(r)->numeric_routine
                               : nullptr;
}

int MFN_print_code(const MFN_record* r) {
    switch (r->kind) {
        case MFN_SPECIAL: return static_cast<const MFN_special_record*>(r)->print_code;
        case MFN_OPERATOR: return MTR_CODE_OPERATOR_PRINTER;
        default: return MTR_CODE_CALL_PRINTER;
    }
}

int MFN_priority(const MFN_record* r) {
    switch (r->kind) {
        case MFN_SPECIAL: return static_cast<const MFN_special_record*>(r)->priority;
        case MFN_OPERATOR: return static_cast<const MFN_operator_record*>(r)->priority;
        default: return 0;
    }
}

const char* MFN_print_text(const MFN_record* r) {
    switch (r->kind) {
        case MFN_SPECIAL: return static_cast<const MFN_special_record*>(r)->print_text;
        case MFN_OPERATOR: return static_cast<const MFN_operator_record*>(r)->print_text;
        default: return nullptr;
    }
}

MFN_print_routine MFN_special_print_routine(const MFN_record* r) {
    return r->kind == MFN_SPECIAL ? static_cast<const MFN_special_record*>(r)->print_routine
                                  : nullptr;
}

// ---- the registry ----

namespace {

const MFN_front default_front{};

// The records that carry `code` in `role`.
std::vector<MFN_record*> carriers(int code, MTR_role role) {
    std::vector<MFN_record*> out;
    std::vector<Use> uses;
    for (MFN_record* r : walk_order) {
        uses.clear();
        collect_uses(r, uses);
        for (const Use& u : uses)
            if (u.code == code && u.role == role) out.push_back(r);
    }
    return out;
}

MFN_routine* numeric_slot(MFN_record* r) { return &static_cast<MFN_math_record*>(r)->numeric_routine; }
MFN_print_routine* printer_slot(MFN_record* r) { return &static_cast<MFN_special_record*>(r)->print_routine; }

// A routine given to one record of a shared code is given to every carrier: the code cell
// names one routine. A carrier that holds a different routine already is a fault.
std::string check_shared(const MFN_builtin& b, int code, MTR_role role, MFN_routine fn,
                         MFN_routine* (*slot)(MFN_record*)) {
    for (MFN_record* c : carriers(code, role))
        if (*slot(c) && *slot(c) != fn)
            return std::string("a second ") + (role == MTR_NUMERIC ? "numeric routine" : "routine") + " for `" + b.name +
                   "`: code " + std::to_string(code) + " has another one in `" + c->name + "`";
    return {};
}

std::string check_entry(const MFN_builtin& b, const MFN_builtin_table& table, size_t index) {
    if (!b.name) return "an entry without a name";
    MFN_record* r = const_cast<MFN_record*>(MFN_record_by_name(b.name));
    if (!r) return std::string("unknown built-in `") + b.name + "`";
    for (size_t j = 0; j < index; ++j) {
        const MFN_builtin& o = table[j];
        if (o.name && std::strcmp(o.name, b.name) == 0)
            return std::string("`") + b.name + "` is named twice in one table";
        // An earlier entry of the same table that gives another routine for a code this
        // record shares is not in the records yet: compare with it directly.
        const MFN_record* q = o.name ? MFN_record_by_name(o.name) : nullptr;
        if (!q) continue;
        if (b.routine && o.routine && o.routine != b.routine && q->code == r->code)
            return std::string("a second routine for `") + b.name + "`: code " + std::to_string(r->code) +
                   " has another one in `" + o.name + "`";
        if (b.numeric && o.numeric && o.numeric != b.numeric && r->kind == MFN_MATH && q->kind == MFN_MATH &&
            static_cast<const MFN_math_record*>(q)->numeric_code == static_cast<const MFN_math_record*>(r)->numeric_code)
            return std::string("a second numeric routine for `") + b.name + "`";
    }
    const auto twice = [&](const char* what) { return std::string("a second ") + what + " for `" + b.name + "`"; };
    if (b.routine) {
        if (r->given & GIVEN_ROUTINE) return twice("routine");
        std::string f = check_shared(b, r->code, MTR_EVALUATOR, b.routine, [](MFN_record* x) { return &x->routine; });
        if (!f.empty()) return f;
    }
    if (b.numeric) {
        if (r->kind != MFN_MATH) return std::string("`") + b.name + "` is no math function: it has no numeric routine";
        if (r->given & GIVEN_NUMERIC) return twice("numeric routine");
        std::string f = check_shared(b, static_cast<MFN_math_record*>(r)->numeric_code, MTR_NUMERIC, b.numeric, numeric_slot);
        if (!f.empty()) return f;
    }
    if (b.printer) {
        if (r->kind != MFN_SPECIAL) return std::string("`") + b.name + "` is no special form: it has no printer";
        if (r->given & GIVEN_PRINTER) return twice("printer");
    }
    if ((b.front || b.raw) && (r->given & GIVEN_FRONT)) return twice("front");
    if (b.front && b.raw) return std::string("`") + b.name + "` is raw and has a front";
    if (b.args.lo >= 0 && (r->given & GIVEN_ARGS)) return twice("argument count");
    if (b.args.lo >= 0 && b.args.hi >= 0 && b.args.hi < b.args.lo)
        return std::string("`") + b.name + "` declares fewer arguments at most than at least";
    if (!b.routine && !b.numeric && !b.printer && !b.front && !b.raw && b.args.lo < 0)
        return std::string("`") + b.name + "` is given nothing";
    return {};
}

void apply_entry(const MFN_builtin& b) {
    MFN_record* r = const_cast<MFN_record*>(MFN_record_by_name(b.name));
    if (b.routine) {
        for (MFN_record* c : carriers(r->code, MTR_EVALUATOR)) c->routine = b.routine;
        r->given |= GIVEN_ROUTINE;
    }
    if (b.numeric) {
        for (MFN_record* c : carriers(static_cast<MFN_math_record*>(r)->numeric_code, MTR_NUMERIC))
            *numeric_slot(c) = b.numeric;
        r->given |= GIVEN_NUMERIC;
    }
    if (b.printer) {
        *printer_slot(r) = b.printer;
        r->given |= GIVEN_PRINTER;
    }
    if (b.front || b.raw) {
        r->front = b.front ? *b.front : default_front;
        r->raw = b.raw;
        r->given |= GIVEN_FRONT;
    }
    if (b.args.lo >= 0) {
        r->min_args = b.args.lo;
        r->max_args = b.args.hi;
        r->given |= GIVEN_ARGS;
    }
}

}  // namespace

std::string MFN_try_install(MFN_builtin_table table) {
    for (size_t i = 0; i < table.size(); ++i) {
        std::string fault = check_entry(table[i], table, i);
        if (!fault.empty()) return fault;
    }
    for (const MFN_builtin& b : table) apply_entry(b);
    return {};
}

void MFN_install(MFN_builtin_table table) {
    const std::string fault = MFN_try_install(table);
    if (!fault.empty()) MSY_fatal("Fatal error in the table of built-ins: " + fault + ".");
}

const MFN_front& MFN_front_of_code(Cell code_cell) {
    const MFN_record* r = MFN_record_of_code(code_cell);
    return r ? r->front : default_front;
}

MFN_print_routine MFN_print_routine_for_code(int code) {
    const MFN_code_entry* e = MFN_find_code(code);
    if (!e || e->role != MTR_PRINTER) return nullptr;
    return MFN_special_print_routine(e->record);
}

std::vector<std::string> MFN_missing_bodies() {
    std::vector<std::string> out;
    for (const MFN_record* r : MFN_records()) {
        if (!r->routine) out.emplace_back(r->name);
        if (r->kind == MFN_MATH && !MFN_numeric_routine(r))
            out.push_back(std::string(r->name) + " (numeric)");
        if (r->kind == MFN_SPECIAL && !MFN_special_print_routine(r))
            out.push_back(std::string(r->name) + " (printer)");
    }
    return out;
}

const MFN_code_entry* MFN_find_code(int code) {
    const auto& v = table_index().codes;
    auto it = std::lower_bound(v.begin(), v.end(), code,
                               [](const MFN_code_entry& e, int c) { return e.code < c; });
    return it != v.end() && it->code == code ? &*it : nullptr;
}

const char* MFN_find_name_for_code(int code) {
    const MFN_code_entry* e = MFN_find_code(code);
    return e ? e->record->name : "";
}

std::vector<std::string> MFN_check_codes() { return MFN_check_codes(MFN_records()); }

std::vector<std::string> MFN_check_codes(std::span<const MFN_record* const> records) {
    std::vector<std::string> faults;
    std::vector<Use> uses;
    for (const MFN_record* r : records) collect_uses(r, uses);

    std::map<int, std::vector<const Use*>> by_code;
    for (const Use& u : uses) {
        if (u.code <= 0)
            faults.push_back(quoted(u.record) + ": " + role_text(u.role) + " code " +
                             std::to_string(u.code) + " is no code number");
        else if (u.code == MTR_CODE_PROCEDURE_CALL || u.code == MTR_CODE_OPERATOR_PRINTER ||
                 u.code == MTR_CODE_CALL_PRINTER)
            faults.push_back("code " + std::to_string(u.code) + " is reserved, yet " +
                             quoted(u.record) + " carries it");
        else
            by_code[u.code].push_back(&u);
    }

    for (const auto& [code, list] : by_code) {
        const std::string at = "code " + std::to_string(code) + ": ";
        const Use* first = list.front();
        bool shared_ok = true;
        for (const Use* u : list) {
            if (u->role != first->role) {
                faults.push_back(at + role_text(first->role) + " of " + quoted(first->record) +
                                 " and " + role_text(u->role) + " of " + quoted(u->record));
                shared_ok = false;
            }
        }
        if (!shared_ok || list.size() == 1) continue;
        // One routine for several functions exists only as the symbolic routine of math
        // functions, which hands the work to each record's own numeric routine.
        bool all_math = first->role == MTR_EVALUATOR &&
                        std::all_of(list.begin(), list.end(),
                                    [](const Use* u) { return u->record->kind == MFN_MATH; });
        if (!all_math) {
            std::string who;
            for (const Use* u : list) who += (who.empty() ? "" : ", ") + quoted(u->record);
            faults.push_back(at + "one " + role_text(first->role) + " for " + who);
            continue;
        }
        for (const Use* u : list)
            if (u->fn != first->fn)
                faults.push_back(at + quoted(first->record) + " and " + quoted(u->record) +
                                 " hold different routines");
    }
    return faults;
}
