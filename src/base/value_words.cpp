#include "base/value_words.h"

#include "base/text.h"

namespace {

struct Word {
    const wchar_t* text;
    int64_t value;
    uint32_t style;
};

// Blanks that surround a value; a form feed is not one of them.
inline bool is_blank(wchar_t c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\r';
}

inline wchar_t ascii_lower(wchar_t c) {
    return c >= 'A' && c <= 'Z' ? static_cast<wchar_t>(c + 32) : c;
}

bool begins_with(const wchar_t* text, size_t length, const wchar_t* word) {
    size_t i = 0;
    for (; word[i]; ++i)
        if (i >= length || ascii_lower(text[i]) != word[i]) return false;
    return true;
}

inline int hex_digit(wchar_t c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = ascii_lower(c);
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

const wchar_t* false_word(uint32_t style) {
    if (style & value_yes_no) return L"no";
    if (style & value_y_n) return L"n";
    if (style & value_true_false) return L"false";
    if (style & value_t_f) return L"f";
    if (style & value_on_off) return L"off";
    if (style & value_enable_disable) return L"disable";
    if (style & value_enabled_disabled) return L"disabled";
    if (style & value_e_d) return L"d";
    return nullptr;
}

// value_yes_no is asked for last: it is also what any other word style falls back to.
const wchar_t* true_word(uint32_t style) {
    if (style & value_y_n) return L"y";
    if (style & value_true_false) return L"true";
    if (style & value_t_f) return L"t";
    if (style & value_on_off) return L"on";
    if (style & value_enable_disable) return L"enable";
    if (style & value_enabled_disabled) return L"enabled";
    if (style & value_e_d) return L"e";
    if (style & value_yes_no) return L"yes";
    return nullptr;
}

} // namespace

int64_t value_parse(const wchar_t* text, size_t max_length, uint32_t* style) {
    uint32_t form = 0;
    uint64_t value = 0;
    size_t length = text_length_bounded(text, max_length);
    while (length && is_blank(*text)) {
        ++text;
        --length;
    }
    while (length && is_blank(text[length - 1])) --length;

    if (length) {
        // The first letter picks the words to try, single letters first, longer words before
        // their own prefixes ("disabled" before "disable").
        static const Word d_words[] = {{L"disabled", 0, value_enabled_disabled},
                                       {L"disable", 0, value_enable_disable}};
        static const Word e_words[] = {{L"enabled", 1, value_enabled_disabled},
                                       {L"enable", 1, value_enable_disable}};
        static const Word f_words[] = {{L"false", 0, value_true_false}};
        static const Word n_words[] = {{L"no", 0, value_yes_no}};
        static const Word o_words[] = {{L"on", 1, value_on_off}, {L"off", 0, value_on_off}};
        static const Word t_words[] = {{L"true", 1, value_true_false}};
        static const Word y_words[] = {{L"yes", 1, value_yes_no}};
        struct Letter {
            wchar_t letter;
            const Word* words;
            size_t count;
            Word alone; // the letter by itself (text 0: none)
        };
        static const Letter letters[] = {
            {'d', d_words, 2, {L"d", 0, value_e_d}}, {'e', e_words, 2, {L"e", 1, value_e_d}},
            {'f', f_words, 1, {L"f", 0, value_t_f}}, {'n', n_words, 1, {L"n", 0, value_y_n}},
            {'o', o_words, 2, {nullptr, 0, 0}},      {'t', t_words, 1, {L"t", 1, value_t_f}},
            {'y', y_words, 1, {L"y", 1, value_y_n}},
        };
        wchar_t first = ascii_lower(text[0]);
        for (const Letter& l : letters) {
            if (l.letter != first) continue;
            if (length == 1 && l.alone.text) {
                if (style) *style = l.alone.style;
                return l.alone.value;
            }
            for (size_t i = 0; i < l.count; ++i) {
                if (begins_with(text, length, l.words[i].text)) {
                    if (style) *style = l.words[i].style;
                    return l.words[i].value;
                }
            }
        }

        size_t i = 0;
        bool negative = false;
        if (text[0] == '-') {
            negative = true;
            form |= value_signed;
            i = 1;
        } else if (text[0] == '+') {
            i = 1;
        }
        if (length - i >= 3 && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X') &&
            hex_digit(text[i + 2]) >= 0) {
            form |= value_hex;
            for (i += 2; i < length && hex_digit(text[i]) >= 0; ++i)
                value = value * 16 + hex_digit(text[i]);
        } else {
            for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i)
                value = value * 10 + (text[i] - '0');
        }
        if (negative) value = 0 - value;
    }
    if (style) *style = form;
    return static_cast<int64_t>(value);
}

void value_format(wchar_t* out, size_t capacity, int64_t value, uint32_t style,
                  unsigned min_digits) {
    const wchar_t* word = value == 0 ? false_word(style) : value == 1 ? true_word(style) : nullptr;
    if (word) {
        text_copy(out, capacity, word);
        return;
    }
    if (min_digits > 27) min_digits = 27;
    wchar_t text[32];
    wchar_t* p = text;
    uint64_t magnitude = static_cast<uint64_t>(value);
    unsigned base = 10;
    if (style & value_hex) {
        *p++ = '0';
        *p++ = 'x';
        base = 16;
    } else if ((style & value_signed) && value < 0) {
        *p++ = '-';
        magnitude = 0 - magnitude;
    }
    wchar_t digits[27];
    unsigned count = 0;
    do {
        digits[count++] = L"0123456789abcdef"[magnitude % base];
        magnitude /= base;
    } while (magnitude);
    for (unsigned i = count; i < min_digits; ++i) *p++ = '0';
    while (count) *p++ = digits[--count];
    *p = 0;
    text_copy(out, capacity, text);
}
