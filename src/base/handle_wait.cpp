#include <algorithm>

#include "base/io.h"
#include "base/process.h"
#include "base/tick.h"

int handle_wait(HANDLE handle, Signalable* cancel, uint32_t timeout_ms) {
    bool forever = timeout_ms >= io_no_timeout;
    uint64_t start = tick_now();
    // With a bridge the cancel source sets an event that is waited for with the handle;
    // without one (no memory, no event) the source is looked at every 50 ms.
    EventBridge* bridge = cancel ? event_bridge_take() : nullptr;
    int result = 0;
    for (;;) {
        if (cancel && signalable_is_signalled(cancel)) break;
        DWORD wait = INFINITE;
        if (!forever) {
            uint64_t elapsed = tick_now() - start;
            wait = elapsed >= timeout_ms ? 0 : static_cast<DWORD>(timeout_ms - elapsed);
        }
        if (cancel && !bridge) wait = std::min<DWORD>(wait, 50);
        DWORD outcome;
        if (bridge) {
            event_bridge_arm(bridge, cancel);
            HANDLE objects[2] = {handle, bridge->event};
            outcome = WaitForMultipleObjects(2, objects, FALSE, wait);
            event_bridge_disarm(bridge, cancel);
        } else {
            outcome = WaitForSingleObject(handle, wait);
        }
        if (outcome == WAIT_OBJECT_0) {
            result = 1;
            break;
        }
        if (outcome == WAIT_FAILED) break;
        if (!forever && tick_now() - start >= timeout_ms) break;
    }
    if (bridge) event_bridge_give(bridge);
    return result;
}
