#pragma once

// Matches a whole text against a pattern in which "*" stands for any run of characters and "?"
// for exactly one character (never the end). Backtracking keeps at most 50 pending "*"
// positions; a "*" met while 50 are pending matches only the empty run, which bounds the work
// a hostile pattern can cause. Null pattern or text reads as empty.
bool text_wildcard_match(const wchar_t* pattern, const wchar_t* text);
bool text_wildcard_match_ascii_nocase(const wchar_t* pattern, const wchar_t* text);
bool utf8_wildcard_match(const char* pattern, const char* text);
bool utf8_wildcard_match_ascii_nocase(const char* pattern, const char* text);
