#include "base/sync.h"

namespace {
Hold g_global_hold;
}

Hold* global_hold() { return &g_global_hold; }

void global_lock() { hold_acquire(&g_global_hold); }

void global_unlock() { hold_release(&g_global_hold); }
