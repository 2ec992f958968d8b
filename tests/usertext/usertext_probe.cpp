// A small front-end with keys of its own, for the user text tests that need a process:
//   probe -: ...                       the maintenance commands
//   probe table                        every entry as "key=text"
//   probe main|load|lazy [key [arg...] [--]]...
// loads its texts quietly (main), with errors shown and "load=<result>" (load), or at the first
// retrieval (lazy), then prints each key's text on a line of its own.
#include <string>

#include <windows.h>

#include "base/text_arena.h"
#include "usertext/usertext.h"

USERTEXT_KEY(probe_plain, "plain");
// Texts that must come back unchanged from the written files.
USERTEXT_KEY(probe_unbalanced, "a } b { c {d} }{");
USERTEXT_KEY(probe_open, "{{ nested } open");
USERTEXT_KEY(probe_syntax, "$( $) ${not run} $x # ; ");
USERTEXT_KEY(probe_empty, "");
USERTEXT_KEY(probe_multi, "line one\nline two\n");
USERTEXT_KEY(probe_rest, "first\nrest without line end");
USERTEXT_KEY(probe_arg, "value %1");
USERTEXT_KEY(probe_name, "Probe");
USERTEXT_KEY(probe_banner, "%(probe_name)\nFor help run: %(command_name) -h\n");
USERTEXT_KEY(probe_accents, "caf\xC3\xA9 \xC5\x81\xC3\xB3"
                            "d\xC5\xBA");
USERTEXT_KEY(probe_b, "default b");
USERTEXT_KEY(probe_c, "default c");
USERTEXT_KEY(dnt_probe_secret, "not for translators");

int wmain(int argc, wchar_t** argv) {
    wchar_t module[MAX_PATH], path[usertext_path_capacity];
    GetModuleFileNameW(nullptr, module, MAX_PATH);
    usertext_set(L"command_name", L"probe"); // as a front-end names itself
    std::wstring mode = argc > 1 ? argv[1] : L"";
    if (mode == L"load" || mode == L"lazy") {
        usertext_set_module(module, path, usertext_path_capacity);
    } else {
        usertext_main(module, argc, argv);
    }
    if (mode == L"load") {
        int result = usertext_load(output_stdout());
        output_stdout()->write((L"load=" + std::to_wstring(result)).c_str(), true);
    } else if (mode == L"table") {
        usertext_enumerate(
            [](void*, const wchar_t* key, const wchar_t* text) {
                output_stdout()->write((std::wstring(key) + L"=" + text).c_str(), true);
            },
            nullptr);
    }
    for (int i = 2; i < argc; ++i) { // ++i passes the "--"
        const wchar_t* key = argv[i++];
        const wchar_t* args[9];
        size_t count = 0;
        for (; i < argc && wcscmp(argv[i], L"--") != 0; ++i)
            if (count < 9) args[count++] = argv[i];
        TextArena arena;
        const wchar_t* text = usertext_get_args(arena, key, count, args);
        output_write_lines(output_stdout(), text);
        size_t length = wcslen(text);
        if (!length || text[length - 1] != '\n') output_stdout()->write(L"", true);
    }
    return 0;
}
