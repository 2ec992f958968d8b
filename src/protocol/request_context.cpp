#include "protocol/request_context.h"

#include <atomic>
#include <stdlib.h>
#include <string.h>

#include "protocol/request_object.h"

namespace zun {

namespace {
std::atomic<long> g_live_contexts{0};
}

RequestContext* request_context_create(MarshallerObject* marshaller) {
    auto* context = static_cast<RequestContext*>(malloc(sizeof(RequestContext)));
    if (!context) return nullptr;
    // Everything but the storage (the request object is built there) and the formatter's
    // scratch (which is the formatter's to initialise) starts zero.
    memset(context, 0, offsetof(RequestContext, storage));
    context->marshaller = marshaller;
    g_live_contexts.fetch_add(1, std::memory_order_relaxed);
    return context;
}

void request_context_free(RequestContext* context) {
    if (context->request) context->request->~RequestObject();
    free(context->message_block);
    free(context->descriptor.receive_buffer);
    free(context);
    g_live_contexts.fetch_sub(1, std::memory_order_relaxed);
}

long request_context_live_count() {
    return g_live_contexts.load(std::memory_order_relaxed);
}

} // namespace zun
