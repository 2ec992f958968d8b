// The locale texts: number and time punctuation from the user's regional settings, set at
// start-up under locale_* keys. They are set like any text, so a translation may override
// them, and the table writers leave them out (they belong to the machine, not the language).
#include <windows.h>

#include "base/format.h"
#include "usertext/locale_texts.h"
#include "usertext/usertext.h"

USERTEXT_KEY(locale_neg_format, "-%1");
USERTEXT_KEY(locale_thous_sep, ",");
USERTEXT_KEY(locale_thous_grouping, "3;0");
USERTEXT_KEY(locale_decimal, ".");
USERTEXT_KEY(locale_time_sep, ":");

bool locale_neg_format_for(uint32_t mode, wchar_t sign, wchar_t* out, size_t capacity) {
    // The patterns are formats whose one argument is the sign; "%%1" leaves the placeholder of
    // the number for the text's user.
    static const wchar_t* const patterns[] = {L"(%%1)", nullptr, L"%s %%1", L"%%1%s", L"%%1 %s"};
    if (mode >= sizeof patterns / sizeof patterns[0] || !patterns[mode]) return false;
    wchar_t sign_text[2] = {sign, 0};
    text_format(out, capacity, patterns[mode], sign_text);
    return true;
}

namespace {

// The first character of a locale string, as a text of its own.
bool first_character(LCTYPE type, wchar_t out[2]) {
    wchar_t value[16];
    if (GetLocaleInfoW(LOCALE_USER_DEFAULT, type, value, 16) <= 1) return false;
    out[0] = value[0];
    out[1] = 0;
    return true;
}

void set_locale_texts() {
    wchar_t sign[2] = {'-', 0};
    first_character(LOCALE_SNEGATIVESIGN, sign);

    DWORD mode = 1;
    if (!GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_INEGNUMBER | LOCALE_RETURN_NUMBER,
                        reinterpret_cast<wchar_t*>(&mode), sizeof mode / sizeof(wchar_t)))
        mode = 1;
    wchar_t format[16];
    if (locale_neg_format_for(mode, sign[0], format, 16))
        usertext_set(ut_locale_neg_format, format);

    wchar_t character[2];
    if (first_character(LOCALE_STHOUSAND, character)) usertext_set(ut_locale_thous_sep, character);
    if (first_character(LOCALE_SDECIMAL, character)) usertext_set(ut_locale_decimal, character);
    if (first_character(LOCALE_STIME, character)) usertext_set(ut_locale_time_sep, character);

    wchar_t grouping[50];
    if (GetLocaleInfoW(LOCALE_USER_DEFAULT, LOCALE_SGROUPING, grouping, 50) > 0)
        usertext_set(ut_locale_thous_grouping, grouping);
}

// Runs after the registrations above: initialisers of one file run in their order.
const bool g_locale_texts_set = (set_locale_texts(), true);

} // namespace
