#include "base/path.h"

#include <cwchar>

#include "base/text_arena.h"

namespace {

bool is_separator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

bool is_ascii_letter(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z');
}

} // namespace

PathParts path_parse(const wchar_t* path) {
    PathParts parts;
    size_t length = std::wcslen(path);
    if (is_separator(path[0]) && is_separator(path[1])) {
        // \\server\share: both parts at least one unit long.
        size_t server_end = 2;
        while (server_end < length && !is_separator(path[server_end])) ++server_end;
        size_t share_start = server_end + 1;
        size_t share_end = share_start;
        while (share_end < length && !is_separator(path[share_end])) ++share_end;
        if (server_end == 2 || server_end >= length || share_end == share_start) {
            parts.error = ERROR_INVALID_NAME;
            return parts;
        }
        parts.rooted = true;
        parts.root_length = share_end < length ? share_end + 1 : share_end;
    } else if (is_separator(path[0])) {
        parts.rooted = true;
        parts.root_length = 0;
    } else if (is_ascii_letter(path[0]) && path[1] == L':') {
        parts.rooted = is_separator(path[2]);
        parts.root_length = parts.rooted ? 3 : 2;
    }

    parts.name_start = parts.root_length;
    for (size_t i = parts.root_length; i < length; ++i)
        if (is_separator(path[i])) parts.name_start = i + 1;
    parts.extension_start = length;
    for (size_t i = length; i > parts.name_start + 1; --i) {
        if (path[i - 1] == L'.') {
            parts.extension_start = i - 1;
            break;
        }
    }
    return parts;
}

wchar_t* path_join(TextAllocator& arena, const wchar_t* directory, const wchar_t* name) {
    size_t directory_length = std::wcslen(directory);
    size_t name_length = std::wcslen(name);
    if (!directory_length) {
        auto* copy = static_cast<wchar_t*>(arena.allocate((name_length + 1) * sizeof(wchar_t)));
        if (copy) std::wmemcpy(copy, name, name_length + 1);
        return copy;
    }
    size_t kept = directory_length;
    if (kept && is_separator(directory[kept - 1])) --kept;
    if (name_length && is_separator(name[0])) {
        ++name;
        --name_length;
    }
    // With nothing to add, the separator is only wanted where the directory is a root: "C:"
    // and "C:\" are different places.
    bool separator = name_length || kept < path_parse(directory).root_length;
    if (name_length == 0 && kept == 0 && directory_length) separator = true; // "\" stays "\"

    size_t length = kept + (separator ? 1 : 0) + name_length;
    auto* joined = static_cast<wchar_t*>(arena.allocate((length + 1) * sizeof(wchar_t)));
    if (!joined) return nullptr;
    std::wmemcpy(joined, directory, kept);
    if (separator) joined[kept] = L'\\';
    std::wmemcpy(joined + kept + (separator ? 1 : 0), name, name_length);
    joined[length] = 0;
    return joined;
}
