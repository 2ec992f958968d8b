#include "base/program_find.h"

#include <cwchar>

#include <windows.h>

#include "base/path.h"
#include "base/text_arena.h"

namespace {

bool is_existing_file(const wchar_t* path) {
    DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// The candidate `name` in `directory`, absolute, if it is an existing file.
wchar_t* try_directory(TextAllocator& arena, const wchar_t* directory, const wchar_t* name) {
    wchar_t* joined = path_join(arena, directory, name);
    if (!joined) return nullptr;
    wchar_t* absolute = path_absolute(arena, joined);
    return absolute && is_existing_file(absolute) ? absolute : nullptr;
}

} // namespace

wchar_t* program_find(TextAllocator& arena, uint32_t flags, const wchar_t* base_directory,
                      const wchar_t* name) {
    if (!name || !*name) return nullptr;
    PathParts parts = path_parse(name);
    if (parts.error) return nullptr;
    if (parts.root_length > 0) {
        // "C:\x", "C:x" or "\\server\share\x": no directory to look in.
        wchar_t* absolute = path_absolute(arena, name);
        return absolute && is_existing_file(absolute) ? absolute : nullptr;
    }

    if (base_directory && *base_directory)
        if (wchar_t* found = try_directory(arena, base_directory, name)) return found;

    bool has_separator = std::wcspbrk(name, L"\\/") != nullptr;
    if ((flags & program_find_current_directory) ||
        ((flags & program_find_current_if_path) && has_separator))
        if (wchar_t* found = try_directory(arena, L".", name)) return found;

    if (!(flags & program_find_path_variable)) return nullptr;
    DWORD size = GetEnvironmentVariableW(L"PATH", nullptr, 0);
    if (!size) return nullptr;
    auto* search_path = static_cast<wchar_t*>(arena.allocate((size + 1) * sizeof(wchar_t)));
    if (!search_path) return nullptr;
    DWORD length = GetEnvironmentVariableW(L"PATH", search_path, size + 1);
    if (!length || length > size) return nullptr;
    for (wchar_t* entry = search_path; entry;) {
        wchar_t* end = std::wcschr(entry, L';');
        if (end) *end = 0;
        if (*entry)
            if (wchar_t* found = try_directory(arena, entry, name)) return found;
        entry = end ? end + 1 : nullptr;
    }
    return nullptr;
}
