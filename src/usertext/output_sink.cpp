// The output sinks of standard output and standard error, and the line splitting every message
// goes through.
#include <windows.h>

#include "base/io.h"
#include "base/text.h"
#include "usertext/usertext.h"

namespace {

// Writes lines to a standard handle in the ANSI code page. The handle is fetched for every line:
// the front-end may repair its standard handles after the sink was first used.
class StdHandleSink final : public OutputSink {
public:
    explicit constexpr StdHandleSink(DWORD which) : which_(which) {}

    void write(const wchar_t* text, bool line_end) override {
        int length = static_cast<int>(text_length_bounded(text, 0x3FFFFFFF));
        // Best-fit mapping would show look-alikes (or a different file name) in place of
        // characters the code page lacks; "?" is honest. UTF-8 code pages take no flags.
        UINT code_page = GetACP();
        DWORD flags = code_page == CP_UTF8 || code_page == CP_UTF7 ? 0 : WC_NO_BEST_FIT_CHARS;

        char small[512];
        char* bytes = small;
        int needed =
            length ? WideCharToMultiByte(CP_ACP, flags, text, length, nullptr, 0, nullptr, nullptr)
                   : 0;
        if (needed < 0) needed = 0;
        size_t total = static_cast<size_t>(needed) + 2;
        if (total > sizeof small) {
            bytes = static_cast<char*>(HeapAlloc(GetProcessHeap(), 0, total));
            if (!bytes) return;
        }
        int converted = needed ? WideCharToMultiByte(CP_ACP, flags, text, length, bytes, needed,
                                                     nullptr, nullptr)
                               : 0;
        size_t size = converted > 0 ? static_cast<size_t>(converted) : 0;
        if (line_end) {
            bytes[size++] = '\r';
            bytes[size++] = '\n';
        }
        // One write per line, so that lines of different threads do not interleave.
        size_t written;
        if (size) io_write(GetStdHandle(which_), bytes, size, &written);
        if (bytes != small) HeapFree(GetProcessHeap(), 0, bytes);
    }

private:
    DWORD which_;
};

StdHandleSink g_stdout{STD_OUTPUT_HANDLE};
StdHandleSink g_stderr{STD_ERROR_HANDLE};

} // namespace

OutputSink* output_stdout() {
    return &g_stdout;
}

OutputSink* output_stderr() {
    return &g_stderr;
}

void output_write_lines(OutputSink* sink, const wchar_t* text) {
    if (!sink || !text) return;
    wchar_t small[256];
    const wchar_t* p = text;
    while (*p) {
        const wchar_t* end = p;
        while (*end && *end != '\n') ++end;
        bool line_end = *end == '\n';
        size_t length = static_cast<size_t>(end - p);
        if (line_end && length && p[length - 1] == '\r') --length;

        // The sink takes terminated lines: copy each into a buffer of its own.
        wchar_t* line = length < 256 ? small : text_allocate(length + 1);
        if (line) {
            memcpy(line, p, length * sizeof(wchar_t));
            line[length] = 0;
            sink->write(line, line_end);
            if (line != small) text_free(line);
        }
        p = line_end ? end + 1 : end;
    }
}
