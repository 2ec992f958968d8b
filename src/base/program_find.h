// Finding the program file to start.
#pragma once

#include <cstdint>

struct TextAllocator;

constexpr uint32_t program_find_current_directory = 1; // look in the current directory
constexpr uint32_t program_find_current_if_path = 2;   // ... but only for names with a "\"
constexpr uint32_t program_find_path_variable = 4;     // look in each directory of PATH

// Tries the base directory (if given), the current directory (per flags), then each non-empty
// entry of PATH; returns the first candidate, made absolute, that names an existing file, or
// null. No extension is added. A name with a drive or a UNC root names its only candidate.
wchar_t* program_find(TextAllocator& arena, uint32_t flags, const wchar_t* base_directory,
                      const wchar_t* name);
