// What a driver that only pretends traces, handed to whoever listens.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace dry {

struct TraceCall {
    enum class Kind { Init, Entry, Param, Warning, Info, Value, Error };

    Kind kind;
    char const* pszText;       // the text, or the name of a parameter or value
    uint32_t uCode = 0;        // of an error
    va_list* pValue = nullptr; // the value of a parameter or value

    // The value, of 32 bits; to be asked for once, and only where the format is that of a number.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the logging call has started it
    uint32_t number() const { return va_arg(*pValue, uint32_t); }
};

class Listener {
public:
    virtual ~Listener() = default;
    // The texts are valid only during the call.
    virtual void on_trace(TraceCall const& call) = 0;
    // A frame that the walk of an open counts: where it begins, where the walk goes on behind it,
    // and the four bytes of its header.
    virtual void on_frame(uint32_t dwFileOffset, uint32_t dwEnd, uint8_t const* pbyHeader) = 0;
    // A rebuild that is about to begin, with the bytes that it wants to find free on the disk.
    virtual void on_need(uint32_t dwBytes) = 0;
};

// From now on this one listens; null: nobody. It must live until it no longer does.
void listen(Listener* pListener);

void tell_frame(uint32_t dwFileOffset, uint32_t dwEnd, uint8_t const* pbyHeader);
void tell_need(uint32_t dwBytes);

} // namespace dry
