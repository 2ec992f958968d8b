// The product's identity: its name, the class key under which its modules are found, and the
// build identification every module reports.
#pragma once

#define ZUN_PRODUCT_VERSION "zun.1.0.0.165"

#if defined(_WIN64)
#define ZUN_PRODUCT_ARCHITECTURE "x64"
#else
#define ZUN_PRODUCT_ARCHITECTURE "x86"
#endif

#if defined(NDEBUG)
#define ZUN_PRODUCT_BUILD_KIND "release"
#else
#define ZUN_PRODUCT_BUILD_KIND "debug"
#endif

// Product prefix and version, architecture, build kind and build date.
#define ZUN_PRODUCT_BUILD_TAG                                                                      \
    ZUN_PRODUCT_VERSION "." ZUN_PRODUCT_ARCHITECTURE "." ZUN_PRODUCT_BUILD_KIND " - 2012.05.16"

// The registry key (under HKEY_CLASSES_ROOT, or "SOFTWARE\Classes" of a hive) that holds the
// library's location, the formatter registrations and the install references.
inline constexpr wchar_t product_class_key[] = L"KestiFileMount";

// The value of the class key that names the library module.
inline constexpr wchar_t product_library_value[] = L"zunapi";
