// The module's strings, shared by preparing (usertext_module.cpp) and loading
// (usertext_load.cpp). Both run under the user text hold.
#pragma once

#include <cstddef>

#include "base/sync.h"

struct UserTextModule {
    wchar_t* name = nullptr; // the module name of the first usertext_set_module
    char* file = nullptr;    // the text file's first bytes (at most 200,000), or null
    size_t file_size = 0;
    const char* resource = nullptr; // the "usertext" resource, in place in the module
    size_t resource_size = 0;
};

// The process-wide lock of preparing and loading. Recursive: a text asked for while the load
// runs (on the loading thread) must not wait for the load.
RecursiveHold* usertext_hold();

const UserTextModule* usertext_module();

// Arms the lazy load that the first usertext_get runs (usertext_load.cpp).
void usertext_arm_load();
