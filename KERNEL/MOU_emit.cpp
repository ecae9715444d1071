// The way out for values: channels and their formats, line breaking for TEXTWIDTH, the
// routines behind `print` and `expr2text`, the result printer, and the start.
#include <cstdarg>
#include <cstdio>
#include <string>

#include "MER_error.h"
#include "MMM_ident.h"
#include "MMM_ref.h"
#include "MMM_values.h"
#include "MOU_internal.h"
#include "MSY_process.h"

long MOU_textwidth = 75;
long MOU_output_count = 0;
MOU_format MOU_channel_format[MOU_CHANNEL_COUNT] = {};

namespace {

const char* const channel_names[MOU_CHANNEL_COUNT] = {"_res", "_prt", "_wrn", "_err", "_dbg",
                                                      "_der", "_dpr", "_oth", "_ERR", "_PRT"};
const char* const format_names[] = {"_txt", "_con", "_tre", "_lan", "_nul"};

void write_out(const std::string& text) {
    FILE* out = MSY_out();
    std::fwrite(text.data(), 1, text.size(), out);
}

// The columns a line takes, tabs going to the next multiple of 8.
long columns(std::string_view line) {
    long c = 0;
    for (char ch : line) c = ch == '\t' ? (c / 8 + 1) * 8 : c + 1;
    return c;
}

void break_line(std::string_view line, long width, std::string& out) {
    if (columns(line) <= width) {
        out.append(line);
        return;
    }
    std::string text;
    for (char ch : line) {
        if (ch == '\t') text.append(size_t(8 - text.size() % 8), ' ');
        else text.push_back(ch);
    }
    const size_t room = size_t(width - 1);  // the last column takes the backslash
    // A cut directly behind a backslash would join it with the continuation mark, and one
    // inside a doubled backquote would end a quoted name.
    auto bad_cut = [&](size_t at) {
        return text[at - 1] == '\\' || (text[at - 1] == '`' && at < text.size() && text[at] == '`');
    };
    size_t start = 0;
    while (text.size() - start > size_t(width)) {
        size_t cut = start + room;
        while (cut > start && bad_cut(cut)) --cut;
        if (cut == start) {
            // A run of backslashes as long as the line: cut behind it.
            cut = start + room;
            while (cut < text.size() && bad_cut(cut)) ++cut;
            if (cut >= text.size()) break;
        }
        out.append(text, start, cut - start);
        out.append("\\\n");
        start = cut;
    }
    out.append(text, start, std::string::npos);
}

// Emission of one text: the memory of the interrupt request is kept aside meanwhile.
struct InterruptAside {
    std::sig_atomic_t pending = MSY_interrupt_pending;
    InterruptAside() { MSY_interrupt_pending = 0; }
    ~InterruptAside() {
        if (pending) MSY_interrupt_pending = pending;
    }
};

bool is_option(Cell c, std::string_view name) {
    return c && MMM_kind_of(c) == MMM_NODE && MMM_category(c) == DOM_IDENT && MMM_ident_text(c) == name;
}

// One value for several: none gives null, one itself, more their sequence.
Cell sequence_of(std::span<const Cell> values) {
    if (values.empty()) return nullptr;
    if (values.size() == 1) {
        MMM_retain(values[0]);
        return values[0];
    }
    Cell e = MMM_make_expr(long(values.size()) + 1);
    Cell head = MMM_ident_by_id(MFN_ID_EXPRSEQ);
    MMM_retain(head);
    MMM_children(e)[0] = head;
    for (size_t i = 0; i < values.size(); ++i) {
        MMM_retain(values[i]);
        MMM_children(e)[i + 1] = values[i];
    }
    MMM_sign(e);
    return e;
}

// The text of a value as the printer makes it, without the line breaking.
std::string printed_text(Cell value) {
    std::string text;
    MOU_state_saver saved;
    const int32_t depth = MOU_depth;
    MOU_sink = &text;
    MOU_depth = 0;
    Cell v = value;
    try {
        MOU_print(&v, 0, nullptr);
    } catch (...) {
        MOU_depth = depth;
        throw;
    }
    MOU_depth = depth;
    return text;
}

// The leading options of print and strprint set the printer's switches (the caller
// saves them); gives the index of the first value and clears `newline` for NoNL.
size_t read_print_options(std::span<const Cell> args, bool& newline) {
    size_t first = 0;
    for (; first < args.size(); ++first) {
        Cell a = args[first];
        if (is_option(a, "Unquoted")) {
            MOU_unquoted = true;
        } else if (is_option(a, "KeepOrder")) {
            MOU_keep_order = 2;
        } else if (is_option(a, "NoNL")) {
            MOU_unquoted = true;
            MOU_pretty = false;
            newline = false;
        } else if (!is_option(a, "Typeset")) {  // typesetting needs a client that takes it
            break;
        }
    }
    return first;
}

}  // namespace

void MOU_set_textwidth(long width) {
    if (width < MOU_MIN_TEXTWIDTH) MER_raise(MER_ARG_OUT_OF_RANGE, "TEXTWIDTH");
    MOU_textwidth = width;
}

const char* MOU_channel_name(MOU_channel channel) {
    return channel >= 0 && channel < MOU_CHANNEL_COUNT ? channel_names[channel] : "";
}

int MOU_channel_by_name(std::string_view name) {
    for (int i = 0; i < MOU_CHANNEL_COUNT; ++i)
        if (name == channel_names[i]) return i;
    return -1;
}

const char* MOU_format_name(MOU_format format) {
    return format >= MOU_TXT && format <= MOU_NUL ? format_names[format] : "";
}

MOU_format MOU_format_by_name(std::string_view name) {
    for (int i = MOU_TXT; i <= MOU_NUL; ++i)
        if (name == format_names[i]) return MOU_format(i);
    return MOU_NUL;
}

std::string MOU_break_lines(std::string_view text, long width) {
    std::string out;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            break_line(text.substr(start), width, out);
            break;
        }
        break_line(text.substr(start, end - start), width, out);
        out.push_back('\n');
        start = end + 1;
    }
    return out;
}

void MOU_emit(Cell value, MOU_channel channel, bool newline, bool) {
    if (!value || MOU_capture_depth > 0) return;
    if (channel < 0 || channel >= MOU_CHANNEL_COUNT) return;
    InterruptAside aside;
    ++MOU_output_count;
    // No client takes content markup or binary trees: content falls back to text, a tree
    // is not sent.
    const MOU_format format = MOU_channel_format[channel];
    if (format != MOU_TXT && format != MOU_LAN && format != MOU_CON) return;
    std::string text;
    {
        MOU_state_saver saved;
        if (format == MOU_LAN) MOU_pretty = false;
        text = printed_text(value);
    }
    if (newline) text.push_back('\n');
    write_out(MOU_break_lines(text, MOU_textwidth));
}

void MOU_printf(MOU_channel channel, const char* format, ...) {
    if (channel < 0 || channel >= MOU_CHANNEL_COUNT || MOU_channel_format[channel] != MOU_TXT) return;
    char buffer[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    write_out(buffer);
}

Cell MOU_print_values(std::span<const Cell> args) {
    MOU_state_saver saved;
    bool newline = true;
    const size_t first = read_print_options(args, newline);
    Cell value = sequence_of(args.subspan(first));
    if (value) {
        MOU_emit(value, MOU_PRT, newline, false);
        MMM_release(value);
    } else if (newline && MOU_capture_depth == 0 && MOU_channel_format[MOU_PRT] == MOU_TXT) {
        write_out("\n");
    }
    MMM_retain(MMM_NULL);
    return MMM_NULL;
}

std::string MOU_strprint(std::span<const Cell> args) {
    MOU_state_saver saved;
    bool newline = true;
    const size_t first = read_print_options(args, newline);
    MMM_ref value(sequence_of(args.subspan(first)));
    std::string text = value ? printed_text(value.get()) : std::string();
    if (newline) text.push_back('\n');
    return MOU_break_lines(text, MOU_textwidth);
}

std::string MOU_expr2text(std::span<const Cell> args) {
    MMM_ref value(sequence_of(args));
    if (!value) return "";
    MOU_state_saver saved;
    MOU_pretty = false;
    MOU_for_text = true;
    MOU_unquoted = false;
    return MOU_to_text(value.get());
}

void MOU_print_result(Cell value) {
    if (!value || value == MMM_NULL) return;
    MOU_emit(value, MOU_RES, true, true);
}

namespace {

// The printer's mode, switches and channel formats, put back after a trap or a report.
struct SavedPrinter {
    long textwidth;
    int32_t indent;
    int keep_order;
    bool pretty, unquoted, in_method, for_text, source_form, statement_layout, trailing_zeroes;
    MOU_format formats[MOU_CHANNEL_COUNT];
};
void save_printer(void* room) {
    auto& r = *static_cast<SavedPrinter*>(room);
    r = {MOU_textwidth, MOU_indent, MOU_keep_order, MOU_pretty, MOU_unquoted, MOU_in_method, MOU_for_text,
         MOU_source_form, MOU_statement_layout, MOU_trailing_zeroes, {}};
    for (int i = 0; i < MOU_CHANNEL_COUNT; ++i) r.formats[i] = MOU_channel_format[i];
}
void restore_printer(const void* room) {
    const auto& r = *static_cast<const SavedPrinter*>(room);
    MOU_textwidth = r.textwidth;
    MOU_indent = r.indent;
    MOU_keep_order = r.keep_order;
    MOU_pretty = r.pretty;
    MOU_unquoted = r.unquoted;
    MOU_in_method = r.in_method;
    MOU_for_text = r.for_text;
    MOU_source_form = r.source_form;
    MOU_statement_layout = r.statement_layout;
    MOU_trailing_zeroes = r.trailing_zeroes;
    for (int i = 0; i < MOU_CHANNEL_COUNT; ++i) MOU_channel_format[i] = r.formats[i];
}

}  // namespace

void MOU_start() {
    MER_add_state({sizeof(SavedPrinter), save_printer, restore_printer, nullptr});
    MOU_pretty = true;
    MOU_unquoted = MOU_in_method = MOU_for_text = MOU_source_form = MOU_statement_layout = false;
    MOU_trailing_zeroes = false;
    MOU_depth = 0;
    MOU_indent = 0;
    MOU_keep_order = 1;
    MOU_textwidth = 75;
    MOU_capture_depth = 0;
    for (MOU_format& f : MOU_channel_format) f = MOU_TXT;
    MOU_start_walker();
}
