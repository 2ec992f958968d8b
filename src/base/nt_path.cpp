// Win32 paths to NT paths. The native file calls take "\??\" paths: the object manager's
// directory of DOS device names, where "C:" and "UNC" are symbolic links.

#include <cwchar>

#include "base/path.h"
#include "base/text_arena.h"

namespace {

// The longest NT path a UNICODE_STRING can carry is 32,767 units (its lengths are 16-bit byte
// counts).
constexpr size_t nt_path_limit = 32768;

bool is_separator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

bool is_ascii_letter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

bool is_verbatim_prefix(const wchar_t* path) {
    return path[0] == L'\\' && path[1] == L'\\' && path[2] == L'?' && path[3] == L'\\';
}

wchar_t* arena_text(TextAllocator& arena, size_t length) {
    return static_cast<wchar_t*>(arena.allocate((length + 1) * sizeof(wchar_t)));
}

// 0, 14 (memory) or 123 (no absolute form).
uint32_t make_absolute(TextAllocator& arena, const wchar_t* path, wchar_t** absolute_out) {
    *absolute_out = nullptr;
    // "\\?\" asks for the path to be taken literally; a single leading separator marks an NT
    // path, which has no current directory to be relative to.
    if (is_verbatim_prefix(path) || (is_separator(path[0]) && !is_separator(path[1]))) {
        size_t length = std::wcslen(path);
        wchar_t* copy = arena_text(arena, length);
        if (!copy) return ERROR_NOT_ENOUGH_MEMORY;
        std::wmemcpy(copy, path, length + 1);
        *absolute_out = copy;
        return 0;
    }
    // GetFullPathNameW applies the rules Windows uses everywhere: the current directory, the
    // per-drive current directories of "X:name", "." and "..", trailing dots and blanks. Its
    // answer may grow between the two calls when another thread changes the current
    // directory; then ask again.
    DWORD size = GetFullPathNameW(path, 0, nullptr, nullptr);
    for (int attempt = 0; size && attempt < 4; ++attempt) {
        wchar_t* absolute = arena_text(arena, size);
        if (!absolute) return ERROR_NOT_ENOUGH_MEMORY;
        DWORD length = GetFullPathNameW(path, size + 1, absolute, nullptr);
        if (length == 0) break;
        if (length <= size) {
            *absolute_out = absolute;
            return 0;
        }
        size = length;
    }
    return ERROR_INVALID_NAME;
}

} // namespace

wchar_t* path_absolute(TextAllocator& arena, const wchar_t* path) {
    wchar_t* absolute;
    make_absolute(arena, path, &absolute);
    return absolute;
}

uint32_t path_to_nt(TextAllocator& arena, const wchar_t* path, UNICODE_STRING* nt_path) {
    *nt_path = {};
    wchar_t* absolute;
    if (uint32_t error = make_absolute(arena, path, &absolute)) return error;

    const wchar_t* prefix;
    const wchar_t* rest;
    if (is_ascii_letter(absolute[0]) && absolute[1] == L':' &&
        (absolute[2] == 0 || absolute[2] == L'\\')) {
        prefix = L"\\??\\";
        rest = absolute;
    } else if (absolute[0] == L'\\' && absolute[1] == L'\\' &&
               (absolute[2] == L'?' || absolute[2] == L'.') && absolute[3] == L'\\') {
        prefix = L"\\??\\";
        rest = absolute + 4;
    } else if (absolute[0] == L'\\' && absolute[1] == L'\\') {
        prefix = L"\\??\\UNC\\";
        rest = absolute + 2;
    } else if (is_separator(absolute[0])) {
        prefix = L"";
        rest = absolute;
    } else {
        return ERROR_INVALID_NAME;
    }

    size_t prefix_length = std::wcslen(prefix);
    size_t length = prefix_length + std::wcslen(rest);
    if (length >= nt_path_limit) return ERROR_INVALID_NAME;
    wchar_t* buffer = arena_text(arena, length);
    if (!buffer) return ERROR_NOT_ENOUGH_MEMORY;
    std::wmemcpy(buffer, prefix, prefix_length);
    std::wmemcpy(buffer + prefix_length, rest, length - prefix_length + 1);
    nt_path->Buffer = buffer;
    nt_path->Length = static_cast<USHORT>(length * sizeof(wchar_t));
    // The terminator is counted in the maximum where the 16-bit field has room for it.
    size_t maximum = length + 1 < nt_path_limit ? length + 1 : length;
    nt_path->MaximumLength = static_cast<USHORT>(maximum * sizeof(wchar_t));
    return 0;
}
