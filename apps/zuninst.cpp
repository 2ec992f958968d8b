#include "library_entry.h"

int wmain(int argc, wchar_t** argv) {
    return run_console_entry("zuninst_wmain", argc, argv);
}
