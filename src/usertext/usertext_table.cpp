// The user text table: one per process, created by the first registration, kept in key order
// (ASCII case-insensitive) for binary search, and freed in the process-exit work.
#include <atomic>
#include <cstddef>
#include <new>

#include <windows.h>

#include "base/sync.h"
#include "base/text.h"
#include "base/thread.h"
#include "base/utf.h"
#include "base/value_words.h"
#include "usertext/usertext_internal.h"

namespace {

// One heap block: this header, the key and its zero, the text and its zero.
struct Entry {
    size_t key_length;
    const wchar_t* text;
    wchar_t key[1];
};

struct Table {
    Entry** entries = nullptr;
    size_t count = 0;
    size_t capacity = 0;
    bool test_mode = false;
};

std::atomic<bool> g_table_done{false};
Table* g_table = nullptr;
ExitRoutine g_table_exit;

HANDLE heap() {
    return GetProcessHeap();
}

void destroy_table() {
    Table* table = g_table;
    if (!table) return;
    g_table = nullptr;
    for (size_t i = 0; i < table->count; ++i) HeapFree(heap(), 0, table->entries[i]);
    if (table->entries) HeapFree(heap(), 0, table->entries);
    HeapFree(heap(), 0, table);
    // A text asked for after the exit work gets a new, empty table rather than a freed one.
    g_table_done.store(false, std::memory_order_release);
}

bool read_test_mode() {
    wchar_t value[64];
    DWORD length = GetEnvironmentVariableW(L"KESTI_USERTEXTTESTMODE", value, 64);
    return length > 0 && length < 64 && value_parse(value, length) != 0;
}

Table* table() {
    run_once(g_table_done, [] {
        void* block = HeapAlloc(heap(), HEAP_ZERO_MEMORY, sizeof(Table));
        if (!block) return;
        auto* created = new (block) Table;
        created->test_mode = read_test_mode();
        g_table = created;
        exit_routine_add(&g_table_exit, destroy_table);
    });
    return g_table;
}

// The index of the key, or where it would be inserted (with *found false).
size_t search(const Table* t, const wchar_t* key, size_t length, bool* found) {
    size_t low = 0, high = t->count;
    while (low < high) {
        size_t middle = low + (high - low) / 2;
        const Entry* entry = t->entries[middle];
        int order = text_compare_ascii_nocase(entry->key, entry->key_length, key, length);
        if (order == 0) {
            *found = true;
            return middle;
        }
        if (order < 0)
            low = middle + 1;
        else
            high = middle;
    }
    *found = false;
    return low;
}

Entry* make_entry(const wchar_t* key, size_t key_length, bool test_mode, const wchar_t* text) {
    size_t text_length = text_length_bounded(text, SIZE_MAX);
    // "(key) text" in test mode, so that a screen shows every text's key.
    size_t prefix = test_mode ? key_length + 3 : 0;
    size_t units = key_length + 1 + prefix + text_length + 1;
    auto* entry =
        static_cast<Entry*>(HeapAlloc(heap(), 0, offsetof(Entry, key) + units * sizeof(wchar_t)));
    if (!entry) return nullptr;
    entry->key_length = key_length;
    memcpy(entry->key, key, key_length * sizeof(wchar_t));
    entry->key[key_length] = 0;
    wchar_t* stored = entry->key + key_length + 1;
    entry->text = stored;
    if (test_mode) {
        *stored++ = '(';
        memcpy(stored, key, key_length * sizeof(wchar_t));
        stored += key_length;
        *stored++ = ')';
        *stored++ = ' ';
    }
    if (text_length) memcpy(stored, text, text_length * sizeof(wchar_t));
    stored[text_length] = 0;
    return entry;
}

} // namespace

const wchar_t* usertext_register(const wchar_t* key, const char* default_text) {
    wchar_t small[50];
    size_t length = utf8_to_text(small, 50, default_text);
    if (length < 50) {
        usertext_set(key, small);
    } else if (wchar_t* large = utf8_to_text_alloc(default_text)) {
        usertext_set(key, large);
        text_free(large);
    }
    return key;
}

void usertext_set(const wchar_t* key, const wchar_t* text) {
    Table* t = table();
    if (!t || !key) return;
    size_t key_length = text_length(key);
    Entry* entry = make_entry(key, key_length, t->test_mode, text);
    if (!entry) return;
    bool found;
    size_t at = search(t, key, key_length, &found);
    if (found) {
        HeapFree(heap(), 0, t->entries[at]);
        t->entries[at] = entry;
        return;
    }
    if (t->count == t->capacity) {
        size_t grown = t->capacity + t->capacity / 4 + 64;
        void* block = t->entries ? HeapReAlloc(heap(), 0, t->entries, grown * sizeof(Entry*))
                                 : HeapAlloc(heap(), 0, grown * sizeof(Entry*));
        if (!block) {
            HeapFree(heap(), 0, entry);
            return;
        }
        t->entries = static_cast<Entry**>(block);
        t->capacity = grown;
    }
    memmove(t->entries + at + 1, t->entries + at, (t->count - at) * sizeof(Entry*));
    t->entries[at] = entry;
    ++t->count;
}

const wchar_t* usertext_lookup(const wchar_t* key, size_t length) {
    Table* t = table();
    if (!t || !key) return nullptr;
    bool found;
    size_t at = search(t, key, length, &found);
    return found ? t->entries[at]->text : nullptr;
}

const wchar_t* usertext_lookup(const wchar_t* key) {
    return usertext_lookup(key, text_length(key));
}

bool usertext_table_ready() {
    return table() != nullptr;
}

bool usertext_test_mode() {
    Table* t = table();
    return t && t->test_mode;
}

void usertext_enumerate(UserTextVisitor visit, void* context) {
    Table* t = table();
    if (!t) return;
    for (size_t i = 0; i < t->count; ++i) visit(context, t->entries[i]->key, t->entries[i]->text);
}
