#include "base/wildcard.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "base/utf.h"

namespace {

constexpr unsigned max_pending_stars = 50;

inline uint32_t fold(uint32_t c, bool ascii_nocase) {
    return ascii_nocase && c - 'a' < 26 ? c - 32 : c;
}

// "?" and a "*" taking one more step move over a whole character, never half a surrogate pair
// or part of a UTF-8 sequence.
inline size_t char_units(const wchar_t* s) {
    size_t used;
    utf16_decode(s, SIZE_MAX, &used);
    return used;
}

inline size_t char_units(const char* s) {
    size_t used;
    utf8_decode(s, SIZE_MAX, &used);
    return used;
}

// Only the newest pending "*" is ever resumed: once it has tried every remaining length in
// vain, no longer run for an earlier "*" can succeed either (the text between two stars has a
// fixed length), so the 50 pending positions behave as one resume point and a count of the
// stars met. That keeps the match linear in pattern length times text length.
template <typename Unit> bool match(const Unit* p, const Unit* t, bool ascii_nocase) {
    static const Unit empty = 0;
    if (!p) p = &empty;
    if (!t) t = &empty;
    const Unit* resume_p = nullptr;
    const Unit* resume_t = nullptr;
    unsigned stars = 0;
    for (;;) {
        if (*p == '*') {
            ++p;
            if (stars < max_pending_stars) {
                ++stars;
                resume_p = p;
                resume_t = t;
            }
            continue;
        }
        if (*t == 0) {
            if (*p == 0) return true;
        } else if (*p == '?') {
            ++p;
            t += char_units(t);
            continue;
        } else if (*p != 0 && fold(static_cast<std::make_unsigned_t<Unit>>(*p), ascii_nocase) ==
                                  fold(static_cast<std::make_unsigned_t<Unit>>(*t), ascii_nocase)) {
            ++p;
            ++t;
            continue;
        }
        if (!resume_p || *resume_t == 0) return false;
        resume_t += char_units(resume_t);
        p = resume_p;
        t = resume_t;
    }
}

} // namespace

bool text_wildcard_match(const wchar_t* pattern, const wchar_t* text) {
    return match(pattern, text, false);
}
bool text_wildcard_match_ascii_nocase(const wchar_t* pattern, const wchar_t* text) {
    return match(pattern, text, true);
}
bool utf8_wildcard_match(const char* pattern, const char* text) {
    return match(pattern, text, false);
}
bool utf8_wildcard_match_ascii_nocase(const char* pattern, const char* text) {
    return match(pattern, text, true);
}
