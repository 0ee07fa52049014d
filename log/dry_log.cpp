#include "log/dry_log.h"

#include "log/xkivlog.h"

namespace dry {
namespace {

Listener* g_pListener = nullptr;

using Kind = TraceCall::Kind;

void tell(Kind kind, char const* pszText, uint32_t uCode = 0) {
    if (g_pListener != nullptr) {
        g_pListener->on_trace({kind, pszText, uCode});
    }
}

void tell_value(Kind kind, char const* pszName, va_list& value) {
    if (g_pListener != nullptr) {
        g_pListener->on_trace({kind, pszName, 0, &value});
    }
}

} // namespace

void listen(Listener* pListener) {
    g_pListener = pListener;
}

void tell_frame(uint32_t dwFileOffset, uint32_t dwEnd, uint8_t const* pbyHeader) {
    if (g_pListener != nullptr) {
        g_pListener->on_frame(dwFileOffset, dwEnd, pbyHeader);
    }
}

void tell_need(uint32_t dwBytes) {
    if (g_pListener != nullptr) {
        g_pListener->on_need(dwBytes);
    }
}

} // namespace dry

using dry::Kind;

void LogInit(char const* /*module*/, char const* /*file*/, int /*line*/, char const* path) {
    dry::tell(Kind::Init, path);
}

void LogEntry(char const* /*module*/, char const* /*file*/, int /*line*/, char const* text) {
    dry::tell(Kind::Entry, text);
}

void LogParam(char const* /*module*/, char const* /*file*/, int /*line*/, char const* name,
              char const* format, ...) {
    va_list value;
    va_start(value, format);
    dry::tell_value(Kind::Param, name, value);
    va_end(value);
}

void LogWarning(char const* /*module*/, char const* /*file*/, int /*line*/, char const* text1,
                char const* /*text2*/) {
    dry::tell(Kind::Warning, text1);
}

void LogInfo(char const* /*module*/, char const* /*file*/, int /*line*/, char const* text) {
    dry::tell(Kind::Info, text);
}

void LogValue(char const* /*module*/, char const* /*file*/, int /*line*/, char const* name,
              char const* format, ...) {
    va_list value;
    va_start(value, format);
    dry::tell_value(Kind::Value, name, value);
    va_end(value);
}

void LogError(char const* /*module*/, char const* /*file*/, int /*line*/, uint32_t code,
              char const* text) {
    dry::tell(Kind::Error, text, code);
}
