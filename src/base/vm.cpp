#include "base/vm.h"

#include "base/nt.h"

void* vm_alloc(size_t size) {
    void* base = nullptr;
    SIZE_T region = size;
    NTSTATUS status = NtAllocateVirtualMemory(nt_current_process(), &base, 0, &region,
                                              MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    return NT_SUCCESS(status) ? base : nullptr;
}

void vm_free(void* block, size_t size) {
    if (!block) return;
    // MEM_RELEASE wants the base of the reservation and a size of 0: it always frees the whole
    // reservation, which is exactly the block vm_alloc made.
    (void)size;
    SIZE_T region = 0;
    NtFreeVirtualMemory(nt_current_process(), &block, &region, MEM_RELEASE);
}
