// The "#!" check with which formatters recognise their text mount files: a file that starts with
// "#!/usr/bin/env zunramfs" or "#! zunramfs" belongs to the formatter named zunramfs.
#include <string.h>

#include "protocol/marshaller_object.h"

namespace zun {

namespace {

constexpr uint32_t kNoScriptHeader = 11;   // ERROR_BAD_FORMAT
constexpr uint32_t kOtherFormatter = 1168; // ERROR_NOT_FOUND

bool is_leading_blank(uint8_t c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
}

char ascii_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

uint32_t identify_script_header(const void* data, size_t size, const char* formatter_name) {
    auto* p = static_cast<const uint8_t*>(data);
    const uint8_t* end = p + size;
    if (size >= 3 && p[0] == 0xEF && p[1] == 0xBB && p[2] == 0xBF) p += 3;
    while (p < end && is_leading_blank(*p)) ++p;
    if (end - p < 2 || p[0] != '#' || p[1] != '!') return kNoScriptHeader;

    const uint8_t* line = p;
    while (p < end && *p != '\0' && *p != '\r' && *p != '\n') ++p;
    while (p > line && (p[-1] == ' ' || p[-1] == '\t')) --p;
    size_t line_length = p - line;

    const char* name = formatter_name ? formatter_name : "";
    size_t name_length = strlen(name);
    if (line_length < name_length) return kOtherFormatter;
    const uint8_t* tail = line + line_length - name_length;
    for (size_t i = 0; i < name_length; ++i)
        if (ascii_lower(static_cast<char>(tail[i])) != ascii_lower(name[i])) return kOtherFormatter;
    if (tail == line) return 0;
    uint8_t before = tail[-1];
    return before == ' ' || before == '\t' || before == '/' || before == '!' ? 0 : kOtherFormatter;
}

} // namespace zun
