// Paths: the parser every path operation uses, joining, making a path absolute and turning it
// into the NT path that the native file calls take. Separators are "\" and "/".
#pragma once

#include <cstddef>
#include <cstdint>

#include <windows.h>
#include <winternl.h>

struct TextAllocator;

// The parts of a path, as offsets in units.
//
// Roots: "X:" (any ASCII letter; rooted only when a separator follows, which then belongs to
// the root); a single leading separator (rooted, root length 0); "\\server\share" (UNC: the
// root runs to and includes the separator after the share, or to the end). "\\" without a
// separator after the server, or with an empty server or share, is invalid (123).
struct PathParts {
    size_t root_length = 0;
    bool rooted = false;
    size_t name_start = 0;      // after the last separator (and never inside the root)
    size_t extension_start = 0; // the last "." of the name unless it is the name's first unit;
                                // else the end of the path
    uint32_t error = 0;         // 0 or 123 (ERROR_INVALID_NAME)
};

PathParts path_parse(const wchar_t* path);

// `directory` without one trailing separator, "\", then `name` without one leading separator.
// With an empty name the trailing "\" goes again unless the directory is a root ("C:\" stays
// "C:\", "C:\d\" becomes "C:\d"). Null when memory is short.
wchar_t* path_join(TextAllocator& arena, const wchar_t* directory, const wchar_t* name);

// The absolute form of `path`, as Windows itself forms it from the current directory (and, for
// "X:name", the current directory of that drive). "\\?\" paths and paths with a single leading
// separator (NT paths) are returned as they are. Null when memory is short or the path cannot
// be made absolute.
wchar_t* path_absolute(TextAllocator& arena, const wchar_t* path);

// The NT path of `path`, made absolute first:
//   "X:" or "X:\..."        ->  "\??\X:\..."
//   "\\?\..." or "\\.\..."  ->  "\??\..."
//   "\\server\share..."     ->  "\??\UNC\server\share..."
//   "\..." (one separator)  ->  unchanged: it is an NT path already
// Anything else, or a result of 32,768 units or more, is 123; a refused allocation is 14. The
// string's buffer comes from the arena and is terminated.
uint32_t path_to_nt(TextAllocator& arena, const wchar_t* path, UNICODE_STRING* nt_path);
