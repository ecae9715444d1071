// The built-ins of the evaluator, one table per source file, next to the routines. The
// session installs every table (MFN_install) before the environments are made.
#pragma once

#include "MFN_table.h"

extern const MFN_builtin_table MEV_eval_builtins;       // MEV_eval.cpp: _exprseq, hold, null, eval, level
extern const MFN_builtin_table MEV_call_builtins;       // MEV_builtins.cpp: print, strprint, expr2text, funcenv, builtin, ...
extern const MFN_builtin_table MEV_stmt_builtins;       // MEV_stmt.cpp: statements and boolean operators
extern const MFN_builtin_table MEV_relation_builtins;   // MEV_relations.cpp: =, <>, <, <=, bool
extern const MFN_builtin_table MEV_proc_builtins;       // MEV_proc_builtins.cpp: _procdef, args, context, ...
extern const MFN_builtin_table MEV_operand_builtins;    // MEV_ops.cpp: op, nops, subsop, type, ...
extern const MFN_builtin_table MEV_container_builtins;  // MEV_containers.cpp: table and frames
extern const MFN_builtin_table MEV_env_builtins;        // MEV_env.cpp: protected
extern const MFN_builtin_table MEV_slot_builtins;       // MEV_slot.cpp: slot
extern const MFN_builtin_table MEV_trap_builtins;       // MEV_trap.cpp: traperror, error, warning, ...
