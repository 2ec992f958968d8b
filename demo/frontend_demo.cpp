#include "frontend_demo.h"

#include <windows.h>

#include "base/format.h"
#include "base/process.h"
#include "base/text.h"

namespace {

void say(const char* text) {
    DWORD written;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), text, static_cast<DWORD>(utf8_length(text)),
              &written, nullptr);
}

// Runs zun.exe (beside this program) with the arguments, its output going to ours. Returns its
// exit code, or -2 when it could not be run.
int run_zun(const wchar_t* shown, const wchar_t* const* arguments) {
    char heading[200];
    utf8_format(heading, sizeof heading, "\n$ zun%hs%ls\n", shown[0] ? " " : "", shown);
    say(heading);

    ProcessLaunch launch;
    // The child's handles must be inheritable; ours need not be.
    HANDLE self = GetCurrentProcess();
    DuplicateHandle(self, GetStdHandle(STD_OUTPUT_HANDLE), self, &launch.std_output, 0, TRUE,
                    DUPLICATE_SAME_ACCESS);
    DuplicateHandle(self, GetStdHandle(STD_ERROR_HANDLE), self, &launch.std_error, 0, TRUE,
                    DUPLICATE_SAME_ACCESS);
    if (process_launch(&launch, arguments) != 0) return -2;
    if (!process_wait(&launch, nullptr, 20000)) {
        process_terminate(launch.process);
        return -2;
    }
    int code = static_cast<int>(launch.exit_code);
    char result[60];
    utf8_format(result, sizeof result, "(exit code %i)\n", code);
    say(result);
    return code;
}

} // namespace

int frontend_demo() {
    say("\nThe zun front-end: a thin program that finds zunapi.dll and calls its zun_wmain.\n");
    const wchar_t* banner[] = {L"zun.exe", nullptr};
    const wchar_t* help[] = {L"zun.exe", L"-h", nullptr};
    const wchar_t* long_help[] = {L"zun.exe", L"unmount", L"-h", nullptr};
    bool ok = run_zun(L"", banner) == 0;
    ok = run_zun(L"-h", help) == 0 && ok;
    ok = run_zun(L"unmount -h", long_help) == 0 && ok;
    return ok ? 0 : 1;
}
