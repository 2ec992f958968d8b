// The module's reference on itself. An interface request takes a temporary reference: it counts
// as a live object for its duration and, the first time a caller's handle comes along, makes
// the module hold one reference on itself. That reference stays while any object is alive, so
// a client may free its own handle right after obtaining an interface; it is given up when the
// count is back at zero (at the end of a request, or by FactoryMainUnload2).
#pragma once

#include <windows.h>

// `caller` is the client's handle variable; the reference may be taken over from it (the
// variable then reads null) and is given back by the drop.
void self_reference_take(HMODULE* caller);
void self_reference_drop(HMODULE* caller);
