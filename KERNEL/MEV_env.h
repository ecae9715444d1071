// Environment variables, protection levels, and the built-ins of errors and traps.
//
// An environment variable is an identifier whose body holds a setter and a getter (code
// cells of kernel routines): an assignment runs the setter, which checks the value and
// puts it into the kernel's own variable at once, and a read asks the getter, which
// reads that variable. So DIGITS is MAR_digits, LEVEL is MEV_level, TEXTWIDTH is
// MOU_textwidth, whatever set them. A deletion gives the setter NIL: the default.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "MFN_table.h"
#include "MMM_cell.h"

// ORDER (6) and HISTORY (20): kept here until the modules that use them exist.
extern int32_t MEV_order;
extern int32_t MEV_history;

// The paths as their setters left them (roots), null where the variable is NIL:
// LIBPATH and PACKAGEPATH a DOM_STRING or a sequence of them, each ending in "/";
// READPATH a string or a sequence; WRITEPATH one string ending in "/".
extern Cell MEV_lib_path;
extern Cell MEV_read_path;
extern Cell MEV_write_path;
extern Cell MEV_package_path;

// The session's directories, from which the paths take their defaults; the session
// fills them in before the environment variables are made.
struct MEV_directories_record {
    std::string lib_dir;
    std::string package_path;  // directories separated by ';'
    bool user_packages = true;
};
extern MEV_directories_record MEV_directories;

// The directories a file read searches: READPATH's entries, then LIBPATH's.
std::vector<std::string> MEV_read_directories();

// Makes the identifier `name` with room for a setter and a getter and stores the code
// cells of the two routines (numbers and routines as MMM_setter describes). Gives the
// identifier, borrowed: the module keeps it alive.
Cell MEV_env_bind(std::string_view name, int setter_code, MFN_routine setter, int getter_code, MFN_routine getter);

// Puts every environment variable back to its default through its setter (what
// `reset()` needs); the paths come back from the session's directories.
void MEV_reset_vars();

// The protection words None, Warning, Error, User (identifiers, borrowed) by level; level
// 4 reads as Error.
Cell MEV_protection_word(int level);

// Makes the environment variables and registers the built-ins protected, traperror,
// error, warning, lasterror and getlasterror. Runs before any other module makes one of
// the variables' identifiers (PI is known to the arithmetic), after the output module.
void MEV_env_start();
// The part of it in MEV_trap.cpp.
void MEV_trap_start();
