// The built-ins of errors: traperror with its time limits, error, warning, lasterror and
// getlasterror.
#include <string>

#include "MAR_numbers.h"
#include "MEV_builtins.h"
#include "MER_error.h"
#include "MEV_env.h"
#include "MEV_eval.h"
#include "MFN_env.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_print.h"
#include "MSY_process.h"

namespace {

// The nearest deadline of the timed traperrors running (monotonic milliseconds), 0 when
// none runs. Deadlines are absolute, so the time an inner trap uses is charged to the
// outer ones by the clock itself.
long active_deadline = 0;


// The limit of one timed traperror, from its start to its end.
struct TimeLimit {
    long outer = 0;      // the deadline in force before
    bool own = false;    // this trap's deadline is the nearest, so a time-limit error is its own
    bool timed = false;

    void start(long seconds) {
        timed = true;
        outer = active_deadline;
        const long mine = MSY_monotonic_ms() + seconds * 1000;
        own = !outer || mine < outer;
        active_deadline = own ? mine : outer;
        MSY_time_limit_set(active_deadline);
    }

    // Gives the outer deadline back to the timer; true when it has passed meanwhile.
    bool end() {
        if (!timed) return false;
        timed = false;
        active_deadline = outer;
        if (!outer) {
            MSY_time_limit_cancel();
            return false;
        }
        if (MSY_monotonic_ms() >= outer) {
            MSY_time_limit_cancel();
            return true;
        }
        MSY_time_limit_set(outer);
        return false;
    }
};

// traperror(expr), traperror(expr, seconds): 0 when expr is evaluated without error,
// else the error's number; the settings of the snapshot come back after an error.
Cell builtin_traperror(Cell e, int context, unsigned flags, Cell) {
    Cell result = nullptr;
    if (MEV_held(e, context, flags, &result)) return result;
    MEV_need_args(e, 1, 2);
    long seconds = 0;
    if (MEV_nargs(e) == 2) {
        Cell s = MEV_eval(MMM_child(e, 2), MEV_CONTEXT_ARGUMENT, 0);
        const bool ok = MMM_is_node(s, DOM_INT) && MAR_small_int(s) > 0;
        if (ok) seconds = MAR_small_int(s);
        MMM_release(s);
        if (!ok) MER_raise(MER_ILLEGAL_ARGUMENT, "traperror");
    }

    const int32_t call_depth = MEV_call_depth, depth = MEV_depth;
    MMM_ref frame(MMM_retained(MEV_frame));
    const bool trapped = MER_trapped;
    TimeLimit limit;
    if (seconds) limit.start(seconds);
    MER_trapped = true;
    MER_snapshot_record snapshot;
    MER_snapshot(snapshot);

    long code = 0;
    try {
        if (!(flags & (MEV_ARGS_FLAT | MEV_ARGS_SPLICE)))
            MMM_release(MEV_eval(MMM_child(e, 1), MEV_CONTEXT_ARGUMENT, flags));
    } catch (const MER_exception& x) {
        code = x.code;
    } catch (...) {
        limit.end();
        MER_restore(snapshot);
        MER_free_snapshot(snapshot);
        MER_trapped = trapped;
        throw;
    }
    // The limit ends before anything else, so that nothing below is cut short by it.
    const bool outer_expired = limit.end();
    if (code) {
        MER_restore(snapshot);
        // A time-out passes a trap without a limit of its own on to the one that set it.
        MER_pending = code == MER_TIME_EXCEEDED && !limit.own ? long(MER_TIME_EXCEEDED) : 0;
        MEV_call_depth = call_depth;
        MEV_depth = depth;
        // The activation is an owned reference: the one held since the start goes back.
        if (MEV_frame != frame.get()) {
            MMM_release(MEV_frame);
            MEV_frame = frame.take();
        }
    }
    MER_free_snapshot(snapshot);
    MER_trapped = trapped;
    if (MER_pending >= MER_FIRST_SYNTAX) MER_pending = 0;  // a syntax error ends here
    if (MER_pending > 0) throw MER_exception{MER_pending};
    if (outer_expired) MER_raise(MER_TIME_EXCEEDED, nullptr);
    return MAR_from_long(code);
}

// The message of error() and warning(): one string, cut to 297 bytes and "..." beyond
// 300, with the running procedure's name in brackets.
std::string message_of(Cell e, const char* name) {
    if (MEV_nargs(e) != 1) MER_raise(MER_WRONG_ARG_COUNT, name);
    Cell m = MMM_child(e, 1);
    if (!MMM_is_node(m, DOM_STRING)) MER_raise(MER_ILLEGAL_ARGUMENT, name);
    std::string text(MMM_string_view(MMM_child(m, 0)));
    if (text.size() > 300) text = text.substr(0, 297) + "...";
    std::string procedure;
    if (MER_context_name(procedure)) text += " [" + procedure + "]";
    return text;
}

Cell builtin_error(Cell e, int, unsigned, Cell) { MER_raise(MER_USER_ERROR, message_of(e, "error").c_str()); }

Cell builtin_warning(Cell e, int, unsigned, Cell) {
    MER_warn(MER_WARN_USER, message_of(e, "warning").c_str());
    return MMM_retained(MMM_NULL);
}

// lasterror(): the last error once more, and the computation stops. Before any error
// there is nothing to repeat, and the call gives NULL.
Cell builtin_lasterror(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) != 0) MER_raise(MER_WRONG_ARG_COUNT, "lasterror");
    if (!MER_last) return MMM_retained(MMM_NULL);
    MER_raise(MER_REPEAT_LAST, nullptr);
}

// getlasterror(): [number, message] of the last error; [0, ""] before any.
Cell builtin_getlasterror(Cell e, int, unsigned, Cell) {
    if (MEV_nargs(e) != 0) MER_raise(MER_WRONG_ARG_COUNT, "getlasterror");
    Cell number = MAR_from_long(MER_last);
    Cell text = MMM_make_string(MER_last_text);
    Cell l = MMM_make_list(2);
    MMM_children(l)[0] = number;
    MMM_children(l)[1] = text;
    MMM_sign(l);
    return l;
}

const MFN_builtin builtins[] = {
    {.name = "traperror", .routine = builtin_traperror, .raw = true},
    {.name = "error", .routine = builtin_error},
    {.name = "warning", .routine = builtin_warning},
    {.name = "lasterror", .routine = builtin_lasterror},
    {.name = "getlasterror", .routine = builtin_getlasterror},
};

}  // namespace

const MFN_builtin_table MEV_trap_builtins = builtins;

namespace {

// fn(arg) for the printer; arg is taken as it is.
Cell printer_call(Cell fn, Cell arg) {
    Cell call = MMM_make_expr(2);
    MMM_children(call)[0] = MMM_retained(fn);
    MMM_children(call)[1] = MMM_retained(arg);
    MMM_sign(call);
    MMM_ref owned(call);
    return MEV_eval(call, MEV_CONTEXT_ARGUMENT, MEV_ARGS_FLAT);
}

// The same under a catch: the error has been reported when it was raised; here the
// settings and the evaluator's depth and frame come back, and the answer is nullptr.
// Stops asked by the user or the watchdog, and running out of memory, pass on.
Cell printer_try_call(Cell fn, Cell arg) {
    const int32_t call_depth = MEV_call_depth, depth = MEV_depth;
    MMM_ref frame(MMM_retained(MEV_frame));
    MER_snapshot_record snapshot;
    MER_snapshot(snapshot);
    Cell result = nullptr;
    try {
        result = printer_call(fn, arg);
    } catch (const MER_exception& x) {
        const bool stop = x.code == MER_ABORTED || x.code == MER_TIME_EXCEEDED || x.code == MER_WATCHDOG_RESET ||
                          x.code == MER_OUT_OF_MEMORY;
        if (stop) {
            MER_free_snapshot(snapshot);
            throw;
        }
        MER_restore(snapshot);
        MER_pending = 0;
        MEV_call_depth = call_depth;
        MEV_depth = depth;
        if (MEV_frame != frame.get()) {
            MMM_release(MEV_frame);
            MEV_frame = frame.take();
        }
    } catch (...) {
        MER_free_snapshot(snapshot);
        throw;
    }
    MER_free_snapshot(snapshot);
    return result;
}

}  // namespace

void MEV_trap_start() {
    active_deadline = 0;
    MOU_hooks.call = printer_call;
    MOU_hooks.try_call = printer_try_call;
}
