// The locale texts of the user's regional settings (locale_texts.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

// The locale_neg_format text for a negative number mode (LOCALE_INEGNUMBER) and sign:
//   0 "(%1)"   2 "- %1"   3 "%1-"   4 "%1 -"   (with sign "-")
// False for mode 1 and unknown modes, which keep the default "-%1".
bool locale_neg_format_for(uint32_t mode, wchar_t sign, wchar_t* out, size_t capacity);
