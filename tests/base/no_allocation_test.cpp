// The engines, transcoders and companions never allocate. Every allocator entry this test
// executable imports (the library's code is linked into it, so its calls go through the same
// import table) is redirected to a counting stand-in for the duration of the calls.
#include <gtest/gtest.h>
#include <windows.h>

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
const char* const hooked_names[] = {"HeapAlloc", "malloc", "calloc", "realloc", "RtlAllocateHeap"};
void* originals[5];

// The stand-in for entry I: counts, then calls the original (x64 has one calling convention).
template <int I, class... Args> void* counting(Args... args) {
    ++allocations;
    return reinterpret_cast<void* (*)(Args...)>(originals[I])(args...);
}
void* const replacements[] = {reinterpret_cast<void*>(counting<0, HANDLE, DWORD, SIZE_T>),
                              reinterpret_cast<void*>(counting<1, size_t>),
                              reinterpret_cast<void*>(counting<2, size_t, size_t>),
                              reinterpret_cast<void*>(counting<3, void*, size_t>),
                              reinterpret_cast<void*>(counting<4, void*, ULONG, SIZE_T>)};

void write_slot(void** slot, void* value) {
    DWORD old;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    *slot = value;
    VirtualProtect(slot, sizeof(void*), old, &old);
}

// Swaps the import slot of each hooked name, from any DLL, for the life of the object.
struct AllocationWatch {
    void** slots[5] = {};
    int hooked = 0;

    AllocationWatch() {
        auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
        auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(
            base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
        DWORD imports =
            nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress;
        for (auto* imp = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports); imp->Name;
             ++imp) {
            auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + imp->OriginalFirstThunk);
            auto* slot = reinterpret_cast<void**>(base + imp->FirstThunk);
            for (; names->u1.AddressOfData; ++names, ++slot) {
                if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
                auto* name = reinterpret_cast<const char*>(
                    reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name);
                for (int i = 0; i < 5; ++i)
                    if (!slots[i] && !strcmp(name, hooked_names[i])) {
                        slots[i] = slot;
                        originals[i] = *slot;
                        write_slot(slot, replacements[i]);
                        ++hooked;
                    }
            }
        }
    }
    ~AllocationWatch() {
        for (int i = 0; i < 5; ++i)
            if (slots[i]) write_slot(slots[i], originals[i]);
    }
};

} // namespace

TEST(NoAllocation, EnginesAndCompanionsNeverTouchTheHeap) {
    static wchar_t wide[600];
    static char narrow[600];
    const GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    long during;
    {
        AllocationWatch watch;
        ASSERT_GE(watch.hooked, 2); // at least HeapAlloc and malloc are imported
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
        text_compare_nocase(L"Stra\u00DFe \U00010428", L"STRASSE \U00010400");
        utf8_compare_nocase("\xC3\xA9t\xC3\xA9", "\xC3\x89T\xC3\x89");
        text_wildcard_match_ascii_nocase(L"*zun*fs?.dll", L"C:\\x\\zunisofs7.DLL");
        text_base64_encode(wide, 600, "foobar", 6);
        text_base64_decode(narrow, 600, L"Zm9vYmFy");
        value_parse(L"  enabled ", 20, nullptr);
        value_format(wide, 600, -42, value_signed, 9);
        during = allocations;
    }
    EXPECT_EQ(during, 0);
}
