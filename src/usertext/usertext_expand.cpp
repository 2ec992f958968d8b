// Expansion of user texts: arguments, nested keys, and retrieval into text arenas.
#include "base/counted_buffer.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "usertext/usertext_internal.h"

namespace {

// Nested keys are expanded while the level of the text being expanded is below this; at this
// level they are inserted as stored, which ends any cycle of keys naming each other.
constexpr unsigned max_level = 6;

// The stored text of a key, or the key itself when the table does not have it.
const wchar_t* text_of(const wchar_t* key, size_t key_length, size_t* length) {
    const wchar_t* text = usertext_lookup(key, key_length);
    if (!text) {
        *length = key_length;
        return key;
    }
    *length = text_length(text);
    return text;
}

const wchar_t* missing_arg(size_t* length) {
    static const wchar_t name[] = L"missing_arg";
    return text_of(name, sizeof name / sizeof name[0] - 1, length);
}

// Expands into out[0..capacity) following the counted-buffer rule; returns the count. The
// level counts this text: the outermost expansion runs at level 1.
size_t expand(unsigned level, const wchar_t* key, size_t key_length, size_t argc,
              const wchar_t* const* args, wchar_t* out, size_t capacity, const wchar_t** direct) {
    size_t length;
    const wchar_t* text = text_of(key, key_length, &length);
    CountedBuffer<wchar_t> buffer(out, capacity);
    bool placeholders = false;
    size_t i = 0;
    while (i < length) {
        size_t run = i;
        while (run < length && text[run] != '%') ++run;
        buffer.put_run(text + i, run - i);
        i = run;
        if (i == length) break;

        placeholders = true;
        if (++i == length) break; // a final "%" ends the text
        wchar_t c = text[i++];
        if (c >= '1' && c <= '9') {
            size_t index = static_cast<size_t>(c - '1');
            if (index < argc && args[index]) {
                buffer.put_run(args[index], text_length(args[index]));
            } else {
                size_t missing_length;
                const wchar_t* missing = missing_arg(&missing_length);
                buffer.put_run(missing, missing_length);
            }
        } else if (c == '(') {
            const wchar_t* name = text + i;
            while (i < length && text[i] != ')') ++i;
            size_t name_length = static_cast<size_t>(text + i - name);
            if (i < length) ++i; // the ")"
            if (level < max_level) {
                // Straight into the rest of the buffer: the nested count tells how much the
                // whole needs, whether or not it fitted.
                size_t at = buffer.count;
                size_t room = at < buffer.capacity ? buffer.capacity - at : 0;
                buffer.count += expand(level + 1, name, name_length, argc, args,
                                       room ? buffer.out + at : nullptr, room, nullptr);
            } else {
                size_t stored_length;
                const wchar_t* stored = text_of(name, name_length, &stored_length);
                buffer.put_run(stored, stored_length);
            }
        } else {
            buffer.put(c);
        }
    }
    if (direct) *direct = placeholders ? nullptr : text;
    return buffer.finish();
}

} // namespace

size_t usertext_expand(const wchar_t* key, size_t argc, const wchar_t* const* args, wchar_t* out,
                       size_t capacity, const wchar_t** direct) {
    return expand(1, key, text_length(key), argc, args, out, capacity, direct);
}

const wchar_t* usertext_get_args(TextAllocator& arena, const wchar_t* key, size_t argc,
                                 const wchar_t* const* args) {
    static const wchar_t error_text[] = L"usertext_error";
    usertext_run_pending_load();
    if (!key || !usertext_table_ready()) return error_text;

    constexpr size_t small_capacity = 100;
    wchar_t small[small_capacity];
    const wchar_t* direct;
    size_t count = usertext_expand(key, argc, args, small, small_capacity, &direct);
    if (direct) return direct;
    auto* block = static_cast<wchar_t*>(arena.allocate((count + 1) * sizeof(wchar_t)));
    if (!block) return error_text;
    if (count < small_capacity)
        memcpy(block, small, (count + 1) * sizeof(wchar_t));
    else
        usertext_expand(key, argc, args, block, count + 1, nullptr);
    return block;
}

const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key) {
    return usertext_get_args(arena, key, 0, nullptr);
}

const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1) {
    return usertext_get_args(arena, key, 1, &arg1);
}

const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1,
                            const wchar_t* arg2) {
    const wchar_t* args[] = {arg1, arg2};
    return usertext_get_args(arena, key, 2, args);
}

const wchar_t* usertext_get(TextAllocator& arena, const wchar_t* key, const wchar_t* arg1,
                            const wchar_t* arg2, const wchar_t* arg3) {
    const wchar_t* args[] = {arg1, arg2, arg3};
    return usertext_get_args(arena, key, 3, args);
}

const wchar_t* usertext_get_printf(TextAllocator& arena, const wchar_t* key, size_t argc,
                                   const wchar_t* const* args) {
    static const wchar_t error_text[] = L"usertext_error";
    usertext_run_pending_load();
    const wchar_t* format = usertext_lookup(key);
    if (!format) format = key ? key : L"";

    // Two passes over the format: the first counts, the second stores.
    wchar_t* block = nullptr;
    size_t capacity = 0;
    for (int pass = 0; pass < 2; ++pass) {
        CountedBuffer<wchar_t> buffer(block, capacity);
        size_t next = 0;
        for (const wchar_t* p = format; *p;) {
            if (*p != '%') {
                buffer.put(*p++);
                continue;
            }
            ++p;
            if (*p == '%') {
                buffer.put(*p++);
                continue;
            }
            // Flags, width, precision and size prefixes are read over; the conversion letter
            // takes the next argument, whatever it asks for.
            while (*p && (text_find_last(L"-+ #0123456789.*hlLIwz", *p) != nullptr)) ++p;
            if (!*p) break;
            ++p;
            if (next < argc && args[next]) buffer.put_run(args[next], text_length(args[next]));
            ++next;
        }
        if (pass == 0) {
            capacity = buffer.count + 1;
            block = static_cast<wchar_t*>(arena.allocate(capacity * sizeof(wchar_t)));
            if (!block) return error_text;
        } else {
            buffer.finish();
        }
    }
    return block;
}

void usertext_print_args(OutputSink* sink, const wchar_t* key, size_t argc,
                         const wchar_t* const* args) {
    TextArena arena;
    output_write_lines(sink, usertext_get_args(arena, key, argc, args));
}

void usertext_print(OutputSink* sink, const wchar_t* key) {
    usertext_print_args(sink, key, 0, nullptr);
}

void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1) {
    usertext_print_args(sink, key, 1, &arg1);
}

void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1,
                    const wchar_t* arg2) {
    const wchar_t* args[] = {arg1, arg2};
    usertext_print_args(sink, key, 2, args);
}

void usertext_print(OutputSink* sink, const wchar_t* key, const wchar_t* arg1, const wchar_t* arg2,
                    const wchar_t* arg3) {
    const wchar_t* args[] = {arg1, arg2, arg3};
    usertext_print_args(sink, key, 3, args);
}
