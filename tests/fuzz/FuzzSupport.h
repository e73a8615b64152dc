#pragma once
// Shared by every fuzz target: a broken invariant stops the run (libFuzzer keeps the input as a crash
// file), the daemon's log stays quiet, and UTF-8 is judged the way JSON text needs it.

#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "logging/Log.h"

namespace Fuzz {

[[noreturn]] inline void Fail(const std::string& what) {
    std::fprintf(stderr, "fuzz check failed: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

inline void Check(bool ok, const std::string& what) {
    if (!ok)
        Fail(what);
}

// Millions of inputs would otherwise mean millions of lines on stderr and in the journal.
inline void QuietLog() {
    Logging::SetStderrEcho(false);
    // A mask with none of the eight priorities: zero would mean "leave the mask as it is".
    setlogmask(~LOG_UPTO(LOG_DEBUG));
}

// The code point of the well-formed UTF-8 sequence at text[pos] and its length, or 0 when there is none
// (no overlong forms, no surrogates, nothing past U+10FFFF).
inline std::size_t DecodeUtf8(const std::string& text, std::size_t pos, uint32_t& codePoint) {
    const auto octet = [&](std::size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = octet(pos);
    std::size_t length = 0;
    uint32_t value = 0;
    uint32_t least = 0;
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2;
        value = lead & 0x1Fu;
        least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        value = lead & 0x0Fu;
        least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        value = lead & 0x07u;
        least = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - pos < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((octet(pos + i) & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (octet(pos + i) & 0x3Fu);
    }
    if (value < least || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    codePoint = value;
    return length;
}

inline bool IsUtf8(const std::string& text) {
    for (std::size_t pos = 0; pos < text.size();) {
        uint32_t codePoint = 0;
        const std::size_t length = DecodeUtf8(text, pos, codePoint);
        if (length == 0)
            return false;
        pos += length;
    }
    return true;
}

}  // namespace Fuzz
