// Shared between the output modules: the text sink and the saving of printer state.
#pragma once

#include <string>

#include "MOU_print.h"

// The text being made. MOU_put_char and MOU_put_text append to it.
extern std::string* MOU_sink;

// Number of MOU_to_text runs in progress; MOU_emit gives nothing while it is above 0.
extern int MOU_capture_depth;

// Saves every switch of the printer and puts it back when it leaves scope, also when an
// error unwinds through it.
struct MOU_state_saver {
    bool pretty = MOU_pretty;
    bool unquoted = MOU_unquoted;
    bool in_method = MOU_in_method;
    bool for_text = MOU_for_text;
    bool source_form = MOU_source_form;
    bool statement_layout = MOU_statement_layout;
    int32_t indent = MOU_indent;
    int keep_order = MOU_keep_order;
    std::string* sink = MOU_sink;
    MOU_state_saver() = default;
    MOU_state_saver(const MOU_state_saver&) = delete;
    MOU_state_saver& operator=(const MOU_state_saver&) = delete;
    ~MOU_state_saver() {
        MOU_pretty = pretty;
        MOU_unquoted = unquoted;
        MOU_in_method = in_method;
        MOU_for_text = for_text;
        MOU_source_form = source_form;
        MOU_statement_layout = statement_layout;
        MOU_indent = indent;
        MOU_keep_order = keep_order;
        MOU_sink = sink;
    }
};

// Sign of a number cell as the printer sees it (MAR_looks_negative for numbers).
bool MOU_number_negative(Cell number);
// Registers the separator cells as roots and makes them; part of MOU_start.
void MOU_start_walker();
