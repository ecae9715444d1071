// powermod reads the residue that `_mod` stands for at the time of the call. The kernel's
// own names cannot be rebound from the language, so the binding is changed by hand here.
#include <gtest/gtest.h>

#include <string>

#include "MMM_ident.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MSE_session.h"
#include "session_support.h"

namespace {

std::string run(std::string_view text) { return eval_shown(text, MOU_to_text, false, true); }

// Binds `_mod` to the value of `name` (an identifier's value) for the life of the object.
class ModBinding {
public:
    explicit ModBinding(const char* name) {
        Cell source = MMM_ident_named(name);
        Cell value = MMM_value(source);
        MMM_release(source);
        binding_ = MMM_binding_find(ident(), MMM_root_frame);
        level_ = MMM_binding_level(binding_);
        MMM_binding_set_level(binding_, MMM_PROTECT_NONE);
        saved_ = MMM_set_value(ident(), value, 0, MMM_root_frame);
        MMM_release(value);
    }
    ~ModBinding() {
        MMM_release(MMM_set_value(ident(), saved_, 0, MMM_root_frame));
        MMM_release(saved_);
        MMM_binding_set_level(binding_, level_);
    }

private:
    static Cell ident() { return MMM_ident_by_id(MFN_ID_MOD); }
    Cell binding_;
    int level_;
    Cell saved_;
};

TEST(Powermod, FollowsTheResidueThatModStandsFor) {
    EXPECT_EQ(run("powermod(3, 3, 5), powermod(1/3, 1, 7)"), "2, 5");
    {
        ModBinding b("mods");
        EXPECT_EQ(run("powermod(3, 3, 5), powermod(1/3, 1, 7), powermod(3, 1, 6), powermod(2, 10, 1000)"),
                  "2, -2, 3, 24");
    }
    {
        ModBinding b("modp");
        EXPECT_EQ(run("powermod(3, 3, 5)"), "2");
    }
    {
        ModBinding b("_div");
        EXPECT_EQ(run("powermod(3, 3, 5)"), "Error 1005");
    }
    {
        ModBinding b("sin");
        EXPECT_EQ(run("powermod(3, 3, 5)"), "Error 1005");
    }
    EXPECT_EQ(run("powermod(3, 3, 5)"), "2");
}

}  // namespace
