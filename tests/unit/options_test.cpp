#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MPA_reader.h"
#include "MSE_session.h"
#include "run_program.h"

namespace {

// Parses a command line into a fresh session record; gives the count of files left.
int parse(std::vector<std::string> args) {
    args.insert(args.begin(), "/opt/torva/bin/torvkern");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    MSE_set_defaults(argv[0]);
    return MSE_parse_options(int(argv.size()), argv.data());
}

TEST(Options, DefaultsComeFromTheProgramsPlace) {
    parse({});
    const MSE_session_record& s = MSE_session;
    EXPECT_EQ(s.stack_size, 0x4000000);
    EXPECT_EQ(s.prime_limit, 300000);
    EXPECT_TRUE(s.interactive);
    EXPECT_TRUE(s.read_userinit);
    EXPECT_TRUE(s.prompt && s.echo && MSE_pref.prompt && MSE_pref.echo);
    EXPECT_EQ(s.help_dir, ".");
    EXPECT_EQ(s.batch_output, "");
    // The test program stands in build/tests; its root is the build directory.
    EXPECT_EQ(s.lib_dir, s.root_dir + "/lib");
    EXPECT_EQ(s.lib_path, s.lib_dir);
    EXPECT_EQ(s.module_dir, s.root_dir + "/modules");
    EXPECT_EQ(s.bin_dir.substr(0, s.root_dir.size()), s.root_dir);
}

struct Case {
    std::vector<std::string> args;
    int files_left;
    bool (*check)();
};

TEST(Options, EachOptionSetsItsField) {
    const Case cases[] = {
        {{"/a", "1000000"}, 0, [] { return MSE_session.stack_size == 1000000; }},
        {{"/a", "0"}, 0, [] { return MSE_session.stack_size == 0x4000000; }},
        {{"/a", "99999999999999999999999"}, 0, [] { return MSE_session.stack_size == LONG_MAX; }},
        {{"-b", "-", "x.tv", "y.tv"}, 2,
         [] {
             return MSE_session.batch_output == "-" && !MSE_session.interactive && !MSE_session.prompt &&
                    !MSE_session.echo && !MSE_pref.prompt && !MSE_pref.echo;
         }},
        {{"/b", "out.txt"}, 0, [] { return MSE_session.batch_output == "out.txt"; }},
        {{"/Embedding"}, 0, [] { return MSE_session.interactive; }},
        {{"-embedding", "f"}, 1, [] { return true; }},
        {{"/F"}, 0, [] { return !MSE_session.user_packages; }},
        {{"/f"}, 0, [] { return !MSE_session.read_userinit; }},
        {{"-n"}, 0, [] { return !MSE_session.read_userinit; }},
        {{"-g"}, 0, [] { return MSE_session.debug_flags == 9; }},
        {{"/gf"}, 0, [] { return MSE_session.debug_flags == 9 && !MSE_session.read_userinit; }},
        {{"/h", std::string(300, 'h')}, 0, [] { return MSE_session.help_dir == std::string(259, 'h'); }},
        {{"/h", "docs"}, 0, [] { return MSE_session.help_dir == "docs" && MSE_session.help_index == "."; }},
        {{"/L", "1000"}, 0, [] { return MSE_session.prime_limit == 1000; }},
        {{"/L", "0"}, 0, [] { return MSE_session.prime_limit == 300000; }},
        {{"/L", "2147483391"}, 0, [] { return MSE_session.prime_limit == 300000; }},
        {{"/l", "/a/lib,/b/lib"}, 0,
         [] { return MSE_session.lib_path == "/a/lib,/b/lib" && MSE_session.lib_dir == "/b/lib"; }},
        {{"/m", "mods"}, 0, [] { return MSE_session.module_dir == "mods" && MSE_session.default_module_dir != "mods"; }},
        {{"/P", "SRP=", "/r", "/P", "srp+", "/s"}, 0, [] { return MSE_session.secure_read_path == "/r;/s"; }},
        {{"/P", "SWP=", "/w", "/P", "SXP+", "/x"}, 0,
         [] { return MSE_session.secure_write_path == "/w" && MSE_session.secure_exec_path == "/x"; }},
        {{"/P", "sW"}, 0,
         [] { return !MSE_pref.secure_kernel && MPA_warn_changes && MSE_session.warn_changes; }},
        {{"/P", "SLw"}, 0, [] { return MSE_pref.secure_kernel && MSE_pref.signed_lib_only && !MPA_warn_changes; }},
        {{"/p", "/pk1", "/p", "/pk2"}, 0,
         [] {
             return MSE_session.package_path == "/pk1;/pk2" && MSE_session.secure_read_path == "/pk1;/pk2" &&
                    MSE_session.secure_exec_path == "/pk1;/pk2";
         }},
        {{"/t", "cov.out"}, 0,
         [] { return MSE_session.coverage_file == "cov.out" && MSE_pref.ignore_no_debug && MSE_session.debug_flags == 9; }},
        {{"/U", "opts"}, 0, [] { return MSE_session.user_options == "opts"; }},
        {{"/u", "/home/me"}, 0, [] { return MSE_session.user_dir == "/home/me"; }},
        {{"/W123", "f.tv"}, 1, [] { return true; }},
        {{"/", "f.tv"}, 1, [] { return true; }},
        {{"--", "/abs"}, 1, [] { return true; }},
        {{"/g", "/abs/file.tv", "/f"}, 2, [] { return MSE_session.debug_flags == 9 && MSE_session.read_userinit; }},
        {{"a.tv", "/f"}, 2, [] { return MSE_session.read_userinit; }},
        {{"/b", "-g"}, 0, [] { return MSE_session.batch_output == "-g" && MSE_session.debug_flags == 0; }},
    };
    for (const Case& c : cases) {
        std::string line;
        for (const auto& a : c.args) line += a + " ";
        EXPECT_EQ(parse(c.args), c.files_left) << line;
        EXPECT_TRUE(c.check()) << line;
    }
}

TEST(Options, StorvaIsASecureKernel) {
    std::vector<std::string> args = {"/usr/bin/storva"};
    std::vector<char*> argv = {args[0].data()};
    MSE_set_defaults(argv[0]);
    EXPECT_TRUE(MSE_session.secure_kernel);
    EXPECT_TRUE(MSE_pref.secure_kernel);
}

TEST(OptionsProgram, UsageErrorsPrintTheUsageTextAndExit1) {
    const std::vector<std::vector<std::string>> bad = {
        {"-x"}, {"/v"}, {"/Embed"}, {"/b"}, {"/a"}, {"/w", "-1"}, {"/w", "ten"}, {"/P", "q"}, {"/P", "SRP="}, {"/gq"},
    };
    for (const auto& args : bad) {
        const ProgramRun r = run_torvkern(args);
        EXPECT_EQ(r.exit_code, 1) << args[0];
        EXPECT_EQ(r.err, std::string(MSE_usage_text) + "\n") << args[0];
        EXPECT_EQ(r.out, "") << args[0];
    }
}

TEST(OptionsProgram, VersionPrintsAndEnds) {
    const ProgramRun r = run_torvkern({"-V"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, "3.1.1\n");
}

TEST(OptionsProgram, OutOfRangeValuesWarnAndGoOn) {
    ProgramRun r = run_torvkern({"/a", "-5", "-b", "-"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.err, "Stack size must be integer > 0. Using default size: 67108864 Bytes.\n");
    r = run_torvkern({"/L", "0", "-b", "-"});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.err, "Prime number limit must be integer of range 1..2147483390.\nUsing default size:  300000\n");
}

}  // namespace
