// The engines, transcoders and companions never allocate. Every allocator entry this test
// executable imports (the library's code is linked into it, so its calls go through the same
// import table) is redirected to a counting stand-in for the duration of the calls.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>

#include "base/base64.h"
#include "base/format.h"
#include "base/text.h"
#include "base/upcase.h"
#include "base/utf.h"
#include "base/value_words.h"
#include "base/wildcard.h"

namespace {

long allocations = 0;

decltype(&HeapAlloc) real_heap_alloc;
void*(__cdecl* real_malloc)(size_t);
void*(__cdecl* real_calloc)(size_t, size_t);
void*(__cdecl* real_realloc)(void*, size_t);
void*(NTAPI* real_rtl_allocate_heap)(void*, ULONG, SIZE_T);

LPVOID WINAPI counting_heap_alloc(HANDLE h, DWORD f, SIZE_T n) {
    return ++allocations, real_heap_alloc(h, f, n);
}
void* __cdecl counting_malloc(size_t n) {
    return ++allocations, real_malloc(n);
}
void* __cdecl counting_calloc(size_t c, size_t n) {
    return ++allocations, real_calloc(c, n);
}
void* __cdecl counting_realloc(void* p, size_t n) {
    return ++allocations, real_realloc(p, n);
}
void* NTAPI counting_rtl_allocate_heap(void* h, ULONG f, SIZE_T n) {
    return ++allocations, real_rtl_allocate_heap(h, f, n);
}

struct Hook {
    const char* name;
    void* replacement;
    void** original;
    void** slot;
};

Hook hooks[] = {
    {"HeapAlloc", reinterpret_cast<void*>(counting_heap_alloc),
     reinterpret_cast<void**>(&real_heap_alloc), nullptr},
    {"malloc", reinterpret_cast<void*>(counting_malloc), reinterpret_cast<void**>(&real_malloc),
     nullptr},
    {"calloc", reinterpret_cast<void*>(counting_calloc), reinterpret_cast<void**>(&real_calloc),
     nullptr},
    {"realloc", reinterpret_cast<void*>(counting_realloc), reinterpret_cast<void**>(&real_realloc),
     nullptr},
    {"RtlAllocateHeap", reinterpret_cast<void*>(counting_rtl_allocate_heap),
     reinterpret_cast<void**>(&real_rtl_allocate_heap), nullptr},
};

void write_slot(void** slot, void* value) {
    DWORD old;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
}

// Finds each hooked name among the executable's imports, from any DLL, and swaps its slot.
class AllocationWatch {
public:
    AllocationWatch() {
        auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(
            base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        const auto& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        for (auto* imp = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress);
             imp->Name; ++imp) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + imp->OriginalFirstThunk);
            auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + imp->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++slots) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
                auto* name =
                    reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name;
                for (Hook& h : hooks) {
                    if (strcmp(reinterpret_cast<const char*>(name), h.name) != 0 || h.slot)
                        continue;
                    h.slot = reinterpret_cast<void**>(&slots->u1.Function);
                    *h.original = *h.slot;
                    write_slot(h.slot, h.replacement);
                    ++hooked_;
                }
            }
        }
    }
    ~AllocationWatch() {
        for (Hook& h : hooks)
            if (h.slot) {
                write_slot(h.slot, *h.original);
                h.slot = nullptr;
            }
    }
    int hooked() const { return hooked_; }

private:
    int hooked_ = 0;
};

} // namespace

TEST(NoAllocation, EnginesAndCompanionsNeverTouchTheHeap) {
    static wchar_t wide[600];
    static char narrow[600];
    const GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    long during;
    {
        AllocationWatch watch;
        ASSERT_GE(watch.hooked(), 2); // at least HeapAlloc and malloc are imported
        allocations = 0;
        // The watch sees an allocation where there is one...
        text_free(text_format_alloc(L"%d", 1));
        EXPECT_EQ(allocations, 1);
        allocations = 0;
        // ...and none in any of these, long outputs, truncation and transcoding included.
        text_format(wide, 600, L"%05X %T open %ls 0x%I64X %d %hs %R %t %-30.20s %p %c%C", 0x1Au,
                    0ull, L"file", ~0ull, -5, "gr\xC3\xBC\xC3\x9F", &guid, 1ll << 31, L"padded",
                    &guid, L'x', 'y');
        text_format(wide, 8, L"%500d", 1);
        utf8_format(narrow, 600, "%ls %S %I32c %lc %*.*s", L"\U0001F600", L"\u20AC", 0x10FFFF, 0xE9,
                    40, 30, "abc");
        utf8_to_text(wide, 600, "\xF0\x9F\x98\x80 \xFF");
        text_to_utf8(narrow, 600, L"\U0001F600 \xD800");
        text_copy(wide, 600, L"copy");
        text_append(wide, 600, L" and more");
        text_prepend(wide, 600, L"front ");
        text_compare_nocase(L"Stra\u00DFe \U00010428", L"STRASSE \U00010400");
        utf8_compare_nocase("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89");
        text_find_ascii_nocase(L"C:\\Program Files\\Zun", L"zun");
        text_wildcard_match_ascii_nocase(L"*zun*fs?.dll", L"C:\\x\\zunisofs7.DLL");
        text_base64_encode(wide, 600, "foobar", 6);
        text_base64_decode(narrow, 600, L"Zm9vYmFy");
        value_parse(L"  enabled ", 20, nullptr);
        value_format(wide, 600, -42, value_signed, 9);
        during = allocations;
    }
    EXPECT_EQ(during, 0);
}
