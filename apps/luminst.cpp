#include "library_entry.h"

int wmain(int argc, wchar_t** argv) {
    return run_console_entry("luminst_wmain", argc, argv);
}
