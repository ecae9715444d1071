// The lookup table of error texts, made from MER_codes.def.
#include "MER_error.h"

namespace {

struct Entry {
    long number;
    const char* text;
};

// The lookup is a linear walk, ended by the entry with number 0.
const Entry table[] = {
#define MER_CODE(name, number, text) {number, text},
#include "MER_codes.def"
#undef MER_CODE
    {0, nullptr},
};

}  // namespace

const char* MER_table_text(long number) {
    for (const Entry* e = table; e->text; ++e)
        if (e->number == number) return e->text;
    return nullptr;
}
