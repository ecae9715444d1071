#include "MMM_values.h"

#include "MER_error.h"
#include "MSY_process.h"

Cell MMM_NIL = nullptr;
Cell MMM_NULL = nullptr;
Cell MMM_FAIL = nullptr;
Cell MMM_TRUE = nullptr;
Cell MMM_UNKNOWN = nullptr;
Cell MMM_FALSE = nullptr;

namespace {

const char* const category_names[MMM_CATEGORY_COUNT] = {
    nullptr,        "DOM_INT",       "DOM_FLOAT",     "DOM_INT",      "DOM_RAT",
    nullptr,        "DOM_COMPLEX",   nullptr,         "DOM_INTERVAL", nullptr,
    "DOM_STRING",   "DOM_BOOL",      nullptr,         "DOM_NULL",     "DOM_NIL",
    nullptr,        nullptr,         nullptr,         nullptr,        "DOM_FRAME",
    "DOM_IDENT",    "DOM_SET",       nullptr,         "DOM_LIST",     "DOM_ARRAY",
    "DOM_TABLE",    "DOM_EXPR",      "DOM_FUNC_ENV",  "DOM_VAR",      "DOM_PROC_ENV",
    nullptr,        "DOM_EXEC",      "DOM_DEBUG",     "DOM_PROC",     "DOM_POLY",
    "DOM_DOMAIN",   "DOM_EXT",       "DOM_FAIL",      nullptr,        nullptr,
    "DOM_RPOLY",    "DOM_NAMESPACE", "DOM_BYTECODE",  nullptr,        nullptr,
    nullptr,        nullptr,         nullptr,         nullptr,        nullptr,
};

void set_node_header(Cell c, int category) {
    const int16_t cat = int16_t(category);
    const uint16_t flags = 0;
    std::memcpy(c->data, &cat, sizeof cat);
    std::memcpy(c->data + 2, &flags, sizeof flags);
}

Cell make_universal(int category) {
    Cell c = MMM_new_node(category, 0);
    MMM_sign(c);
    return c;
}

Cell make_bool_cell(int stored) {
    Cell c = MMM_new_node(DOM_BOOL, 1);
    MMM_children(c)[0] = MMM_make_int_box(stored);
    MMM_sign(c);
    return c;
}

}  // namespace

const char* MMM_category_name(int category) {
    return category >= 0 && category < MMM_CATEGORY_COUNT ? category_names[category] : nullptr;
}

Cell MMM_new_node(int category, long child_count) {
    Cell c = MMM_new(MMM_NODE, MMM_NODE_BYTES, child_count);
    set_node_header(c, category);
    return c;
}

Cell MMM_new_string(std::string_view text) {
    const auto len = uint32_t(text.size());
    Cell s = MMM_new(MMM_STRING, long(sizeof len) + long(len) + 1, 0);
    std::memcpy(s->data, &len, sizeof len);
    if (len) std::memcpy(s->data + sizeof len, text.data(), len);
    s->data[sizeof len + len] = 0;
    MMM_sign(s);
    return s;
}

std::string_view MMM_string_view(Cell s) {
    uint32_t len;
    std::memcpy(&len, s->data, sizeof len);
    return {s->data + sizeof len, len};
}

Cell MMM_make_int_box(int32_t n) {
    Cell c = MMM_new(MMM_INT, sizeof n, 0);
    std::memcpy(c->data, &n, sizeof n);
    MMM_sign(c);
    return c;
}

int32_t MMM_int_box_value(Cell c) {
    int32_t n;
    std::memcpy(&n, c->data, sizeof n);
    return n;
}

Cell MMM_make_expr(long child_count) { return MMM_new_node(DOM_EXPR, child_count); }

Cell MMM_make_list(long n) { return MMM_new_node(DOM_LIST, n); }

Cell MMM_make_string(std::string_view text) {
    Cell c = MMM_new_node(DOM_STRING, 1);
    MMM_children(c)[0] = MMM_new_string(text);
    MMM_sign(c);
    return c;
}

Cell (*MMM_integer_maker)(long n) = nullptr;

Cell MMM_make_integer(long n) {
    if (!MMM_integer_maker) MSY_fatal("Internal error. [MMM_make_integer before the numbers]");
    return MMM_integer_maker(n);
}

Cell MMM_make_bool(int stored) {
    Cell c = stored == MMM_BOOL_TRUE      ? MMM_TRUE
             : stored == MMM_BOOL_FALSE   ? MMM_FALSE
             : stored == MMM_BOOL_UNKNOWN ? MMM_UNKNOWN
                                          : nullptr;
    if (!c) MER_raise(MER_INTERNAL, nullptr);
    MMM_retain(c);
    return c;
}

void MMM_values_start() {
    MMM_NIL = make_universal(DOM_NIL);
    MMM_NULL = make_universal(DOM_NULL);
    MMM_FAIL = make_universal(DOM_FAIL);
    MMM_TRUE = make_bool_cell(MMM_BOOL_TRUE);
    MMM_UNKNOWN = make_bool_cell(MMM_BOOL_UNKNOWN);
    MMM_FALSE = make_bool_cell(MMM_BOOL_FALSE);
    for (Cell* root : {&MMM_NIL, &MMM_NULL, &MMM_FAIL, &MMM_TRUE, &MMM_UNKNOWN, &MMM_FALSE})
        MMM_add_root(root);
}
