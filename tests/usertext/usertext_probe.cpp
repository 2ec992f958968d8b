// A small front-end for the user text tests: it registers keys of its own, prepares and loads
// its strings the way the first argument says, and prints texts to standard output.
//
//   usertext_probe -: ...                  the maintenance commands (usertext_main)
//   usertext_probe main|load|lazy [key [arg...]]...
//       main  usertext_main loads quietly   load  usertext_load with errors to standard output
//       lazy  only usertext_set_module; the first usertext_get loads
//     then prints each key's text, ending its line if the text does not; the words after a
//     key, up to the next "--", are its arguments: usertext_probe load probe_arg one -- probe_plain
//   usertext_probe table                   every entry as "key=text" with \r and \n escaped
//
// With "load", the first line is "load=<result>".
#include <string>

#include <windows.h>

#include "base/format.h"
#include "base/text.h"
#include "base/text_arena.h"
#include "usertext/usertext.h"

USERTEXT_KEY(probe_plain, "plain");
USERTEXT_KEY(probe_nested, "A {nested} text");
USERTEXT_KEY(probe_unbalanced, "a } b { c {d} }{");
USERTEXT_KEY(probe_multi, "line one\nline two\n");
USERTEXT_KEY(probe_rest, "first\nrest without line end");
USERTEXT_KEY(probe_arg, "value %1");
USERTEXT_KEY(probe_name, "Probe");
USERTEXT_KEY(probe_tag, "tag 1.0");
USERTEXT_KEY(probe_banner, "%(probe_name)\n%(probe_tag)\nFor help run: %(command_name) -h\n");
USERTEXT_KEY(probe_accents, "caf\xC3\xA9 \xC5\x81\xC3\xB3"
                            "d\xC5\xBA");
USERTEXT_KEY(probe_a, "default a");
USERTEXT_KEY(probe_b, "default b");
USERTEXT_KEY(probe_c, "default c");
USERTEXT_KEY(dnt_probe_secret, "not for translators");

namespace {

void print_entry(void*, const wchar_t* key, const wchar_t* text) {
    std::wstring line = std::wstring(key) + L"=";
    for (const wchar_t* p = text; *p; ++p) {
        if (*p == '\r')
            line += L"\\r";
        else if (*p == '\n')
            line += L"\\n";
        else
            line += *p;
    }
    output_stdout()->write(line.c_str(), true);
}

} // namespace

int wmain(int argc, wchar_t** argv) {
    wchar_t module[MAX_PATH];
    GetModuleFileNameW(nullptr, module, MAX_PATH);
    // What a front-end does before usertext_main: name itself for "%(command_name)".
    usertext_set(L"command_name", L"probe");

    std::wstring mode = argc > 1 ? argv[1] : L"";
    wchar_t path[usertext_path_capacity];
    if (mode == L"-:" || mode == L"main" || mode == L"table") {
        usertext_main(module, argc, argv);
    } else if (mode == L"load") {
        usertext_set_module(module, path, usertext_path_capacity);
        wchar_t line[32];
        text_format(line, 32, L"load=%i", usertext_load(output_stdout()));
        output_stdout()->write(line, true);
    } else if (mode == L"lazy") {
        usertext_set_module(module, path, usertext_path_capacity);
    } else {
        return 2;
    }

    if (mode == L"table") {
        usertext_enumerate(print_entry, nullptr);
        return 0;
    }
    for (int i = 2; i < argc;) {
        const wchar_t* key = argv[i++];
        const wchar_t* args[9];
        size_t count = 0;
        while (i < argc && text_compare(argv[i], L"--") != 0 && count < 9)
            args[count++] = argv[i++];
        if (i < argc) ++i; // the "--"
        // Each text ends its line, so that texts that have no line end stay apart.
        TextArena arena;
        const wchar_t* text = usertext_get_args(arena, key, count, args);
        output_write_lines(output_stdout(), text);
        size_t length = text_length(text);
        if (!length || text[length - 1] != '\n') output_stdout()->write(L"", true);
    }
    return 0;
}
