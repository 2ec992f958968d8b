// The live-object count of the module: every interface object the module hands out is counted
// from its construction to its destruction, and while the count is above zero the module does
// not let go of the reference it holds on itself.
#pragma once

#include <cstdint>

// For the constructor and the destructor of every object handed out through the factory.
void factory_object_created();
void factory_object_destroyed();

// Objects alive plus interface requests in progress, read under the factory lock.
int32_t factory_live_objects();
