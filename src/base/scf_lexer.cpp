// The SCF lexer: one pass over the script text that collects each command's words on the word
// stack and runs the command as soon as its words are complete, so that a ${script} in a word
// sees everything the commands before it did.
#include "base/scf_state.h"
#include "base/text.h"

namespace {

bool is_name_char(wchar_t c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool ends_word(wchar_t c) {
    return scf_is_blank(c) || c == ';' || c == '\n';
}

bool is_plain(wchar_t c) {
    return !ends_word(c) && c != '{' && c != '}' && c != '$';
}

// The "}" that matches the "{" before `p`, or null. Braces nest; nothing else is special.
const wchar_t* matching_brace(const wchar_t* p, const wchar_t* end) {
    size_t depth = 1;
    for (; p < end; ++p) {
        if (*p == '{') {
            ++depth;
        } else if (*p == '}' && --depth == 0) {
            return p;
        }
    }
    return nullptr;
}

// The word being lexed. A word of one plain or braced piece stays a slice of the script; a
// second piece, or any substitution, makes it a string of its own.
class WordBuilder {
public:
    WordBuilder() = default;
    ~WordBuilder() {
        if (owned_) HeapFree(GetProcessHeap(), 0, owned_);
    }
    WordBuilder(const WordBuilder&) = delete;
    WordBuilder& operator=(const WordBuilder&) = delete;

    // A piece whose text stays valid while the command runs (a slice of the script).
    void add_slice(const wchar_t* text, size_t length) {
        if (!pieces_++) {
            slice_ = text;
            length_ = length;
            return;
        }
        append(text, length);
    }

    // A piece whose text may change or go away (a variable's value, a result): always copied.
    void add_copy(const wchar_t* text, size_t length) {
        ++pieces_;
        append(text, length);
    }

    // Hands the word over; false when memory ran out while it was built (the word is left out).
    bool take(ScfWord* word) {
        if (failed_) return false;
        if (owned_) {
            *word = {owned_, length_, owned_};
            owned_ = nullptr;
        } else {
            *word = {slice_ ? slice_ : L"", length_, nullptr};
        }
        return true;
    }

private:
    void append(const wchar_t* text, size_t length) {
        if (failed_) return;
        if (!owned_) {
            // Turn the slice collected so far into a string of our own.
            const wchar_t* slice = slice_;
            size_t kept = length_;
            length_ = 0;
            if (!reserve(kept + length)) return;
            if (kept) memcpy(owned_, slice, kept * sizeof(wchar_t));
            length_ = kept;
        } else if (!reserve(length_ + length)) {
            return;
        }
        if (length) memcpy(owned_ + length_, text, length * sizeof(wchar_t));
        length_ += length;
        owned_[length_] = 0;
    }

    bool reserve(size_t length) {
        if (owned_ && length + 1 <= capacity_) return true;
        size_t grown = length + 1 + length / 4 + 4;
        void* block = owned_ ? HeapReAlloc(GetProcessHeap(), 0, owned_, grown * sizeof(wchar_t))
                             : HeapAlloc(GetProcessHeap(), 0, grown * sizeof(wchar_t));
        if (!block) {
            failed_ = true;
            return false;
        }
        owned_ = static_cast<wchar_t*>(block);
        capacity_ = grown;
        return true;
    }

    const wchar_t* slice_ = nullptr;
    wchar_t* owned_ = nullptr;
    size_t length_ = 0;
    size_t capacity_ = 0;
    unsigned pieces_ = 0;
    bool failed_ = false;
};

struct Lexer {
    ScfInterpreter* scf;
    const wchar_t* p;
    const wchar_t* end;

    void fail(const wchar_t* message) {
        scf_error(scf, message);
        scf_stop(scf, -1);
    }

    // "$" at p: a substitution or a literal "$".
    void dollar(WordBuilder& word) {
        const wchar_t* next = p + 1;
        if (next == end) {
            word.add_slice(p++, 1);
            return;
        }
        switch (*next) {
        case '(':
            word.add_copy(L"{", 1);
            p += 2;
            return;
        case ')':
            word.add_copy(L"}", 1);
            p += 2;
            return;
        case '{': {
            const wchar_t* close = matching_brace(next + 1, end);
            if (!close) {
                fail(scf_msg_unmatched_open);
                return;
            }
            // The script's own result, kept apart from the result of the enclosing script.
            ScfText outer = scf->result;
            scf->result = ScfText{};
            scf_run_scoped(scf, next + 1, static_cast<size_t>(close - next - 1), scf->arguments);
            word.add_copy(scf->result.text ? scf->result.text : L"", scf->result.length);
            scf->result.release();
            scf->result = outer;
            p = close + 1;
            return;
        }
        default:
            break;
        }
        if (!is_name_char(*next)) {
            word.add_slice(p++, 1);
            return;
        }
        const wchar_t* name = next;
        while (next < end && is_name_char(*next)) ++next;
        size_t length = static_cast<size_t>(next - name);
        p = next;
        if (length == 1 && *name >= '0' && *name <= '9') {
            size_t index = static_cast<size_t>(*name - '0');
            if (index < scf->arguments.count) {
                const ScfWord& argument = scf->words.items[scf->arguments.first + index];
                word.add_copy(argument.text, argument.length);
            } else {
                word.add_copy(L"", 0);
            }
            return;
        }
        size_t value_length = 0;
        const wchar_t* value = scf_find_var(scf, name, length, &value_length);
        word.add_copy(value ? value : L"", value_length);
    }

    // Lexes the word at p; false after an error.
    bool lex_word(WordBuilder& word) {
        while (p < end && !scf->stop) {
            wchar_t c = *p;
            if (ends_word(c)) break;
            if (c == '{') {
                const wchar_t* close = matching_brace(p + 1, end);
                if (!close) {
                    fail(scf_msg_unmatched_open);
                    break;
                }
                word.add_slice(p + 1, static_cast<size_t>(close - p - 1));
                p = close + 1;
            } else if (c == '}') {
                fail(scf_msg_unmatched_close);
                break;
            } else if (c == '$') {
                dollar(word);
            } else {
                const wchar_t* start = p;
                while (p < end && is_plain(*p)) ++p;
                word.add_slice(start, static_cast<size_t>(p - start));
            }
        }
        return !scf->stop;
    }

    void skip_blanks() {
        while (p < end && scf_is_blank(*p)) ++p;
    }

    void drop_words(size_t first) {
        ScfArray<ScfWord>& words = scf->words;
        while (words.count > first) {
            ScfWord& word = words.items[--words.count];
            if (word.owned) HeapFree(GetProcessHeap(), 0, word.owned);
        }
    }

    void run() {
        while (p < end && !scf->stop) {
            skip_blanks();
            if (p == end) break;
            if (*p == '\n' || *p == ';') {
                ++p;
                continue;
            }
            if (*p == '#') {
                while (p < end && *p != '\n') ++p;
                continue;
            }
            size_t first = scf->words.count;
            for (;;) {
                skip_blanks();
                if (p == end) break;
                if (*p == '\n' || *p == ';') {
                    ++p;
                    break;
                }
                WordBuilder builder;
                if (!lex_word(builder)) break;
                ScfWord word;
                if (builder.take(&word) && !scf->words.push(word) && word.owned)
                    HeapFree(GetProcessHeap(), 0, word.owned);
            }
            if (!scf->stop) scf_dispatch(scf, {first, scf->words.count - first});
            drop_words(first);
        }
    }
};

} // namespace

void scf_execute(ScfInterpreter* scf, const wchar_t* text, size_t length) {
    if (!text) return;
    Lexer lexer{scf, text, text + length};
    lexer.run();
}
