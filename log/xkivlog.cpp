// The seven operations. Each is a comparison with the gate; all work is out of line behind it,
// so that a call of a log that is off costs next to nothing. The driver logs whole directories
// around every edit.
#include "log/xkivlog.h"

#include "log/config.h"
#include "log/format.h"
#include "log/line.h"
#include "log/os.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

using xkivlog::Level;

// Without these the entry of a variadic function puts eight vector registers and a canary on the
// stack before it looks at the gate. No format converts a floating point value, and the entry only
// passes its list of values on: what writes has a canary.
#if defined(__GNUC__) && defined(__x86_64__)
#define XKIVLOG_BARE_ENTRY __attribute__((target("general-regs-only"), no_stack_protector))
#else
#define XKIVLOG_BARE_ENTRY
#endif

// A macro, since no function can be inlined both into the entries that have the attribute and into
// those that have not.
#define XKIVLOG_IS_OFF(level)                                                                      \
    (__atomic_load_n(&xkivlog::gate, __ATOMIC_RELAXED) < static_cast<int>(level))

namespace {

constexpr size_t kMaxName = 128;

struct Place {
    char const* module;
    char const* file;
    int line;
};

// Writes a line: the head that all have, and behind it what `fill` appends.
template <typename Fill>
void write(Level level, char const* kind, Place const& place, Fill fill) noexcept {
    xkivlog::os::PreserveError const preserve;
    // The first call of the process passes the gate whatever its level, so the gate is asked again
    // after the configuration.
    xkivlog::ensure_configured();
    if (XKIVLOG_IS_OFF(level)) {
        return;
    }
    xkivlog::Line line;
    xkivlog::append_head(line, kind, place.module, place.file, place.line);
    fill(line);
    if (int const descriptor = xkivlog::destination(); descriptor >= 0) {
        auto const text = line.finish();
        if (!xkivlog::os::write_line(descriptor, text.data(), text.size())) {
            xkivlog::give_up();
        }
    }
}

[[gnu::noinline, gnu::cold]] void write_text(Level level, char const* kind, Place place,
                                             char const* text) noexcept {
    write(level, kind, place, [&](xkivlog::Line& line) { line.append(xkivlog::bounded(text)); });
}

[[gnu::noinline, gnu::cold]] void write_warning(Place place, char const* text1,
                                                char const* text2) noexcept {
    write(Level::Warning, "WARNING", place, [&](xkivlog::Line& line) {
        if (text1 != nullptr && *text1 != '\0') {
            line.append(xkivlog::bounded(text1));
            line.append(" ");
        }
        line.append(xkivlog::bounded(text2));
    });
}

[[gnu::noinline, gnu::cold]] void write_error(Place place, uint32_t code,
                                              char const* text) noexcept {
    write(Level::Error, "ERROR", place, [&](xkivlog::Line& line) {
        char number[48];
        std::snprintf(number, sizeof number, "%" PRIu32 " (0x%08" PRIX32 ") ", code, code);
        line.append(number);
        line.append(xkivlog::bounded(text));
    });
}

[[gnu::noinline, gnu::cold]] void write_value(Level level, char const* kind, Place place,
                                              char const* name, char const* format,
                                              va_list values) noexcept {
    write(level, kind, place, [&](xkivlog::Line& line) {
        line.append(xkivlog::bounded(name, kMaxName), kMaxName);
        line.append(" = ");
        xkivlog::append_formatted(line, format, values);
    });
}

} // namespace

extern "C" {

void LogInit(char const* module, char const* file, int line, char const* path) {
    {
        xkivlog::os::PreserveError const preserve;
        xkivlog::ensure_configured();
        xkivlog::use_ini(path);
    }
    if (!XKIVLOG_IS_OFF(Level::Entry)) {
        write_text(Level::Entry, "INIT", {module, file, line}, path);
    }
}

void LogEntry(char const* module, char const* file, int line, char const* text) {
    if (!XKIVLOG_IS_OFF(Level::Entry)) {
        write_text(Level::Entry, "ENTRY", {module, file, line}, text);
    }
}

XKIVLOG_BARE_ENTRY void LogParam(char const* module, char const* file, int line, char const* name,
                                 char const* format, ...) {
    if (XKIVLOG_IS_OFF(Level::Param)) {
        [[likely]] return;
    }
    va_list values;
    va_start(values, format);
    write_value(Level::Param, "PARAM", {module, file, line}, name, format, values);
    va_end(values);
}

void LogWarning(char const* module, char const* file, int line, char const* text1,
                char const* text2) {
    if (!XKIVLOG_IS_OFF(Level::Warning)) {
        write_warning({module, file, line}, text1, text2);
    }
}

void LogInfo(char const* module, char const* file, int line, char const* text) {
    if (!XKIVLOG_IS_OFF(Level::Info)) {
        write_text(Level::Info, "INFO", {module, file, line}, text);
    }
}

XKIVLOG_BARE_ENTRY void LogValue(char const* module, char const* file, int line, char const* name,
                                 char const* format, ...) {
    if (XKIVLOG_IS_OFF(Level::Value)) {
        [[likely]] return;
    }
    va_list values;
    va_start(values, format);
    write_value(Level::Value, "VALUE", {module, file, line}, name, format, values);
    va_end(values);
}

void LogError(char const* module, char const* file, int line, uint32_t code, char const* text) {
    if (!XKIVLOG_IS_OFF(Level::Error)) {
        write_error({module, file, line}, code, text);
    }
}
}
