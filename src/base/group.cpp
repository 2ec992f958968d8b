#include <cstddef>

#include "base/settle.h"
#include "base/sync.h"

static_assert(offsetof(GroupMember, entry) == 0);

namespace {

void count_firing(Group* group) {
    // Only the firing that brings the count to zero signals: with count 1 that is the first
    // member (any of), with the number of members the last one (all of).
    if (group->remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) pin_signal(group);
}

void member_fired(WaiterEntry* entry) {
    GroupMember* member = reinterpret_cast<GroupMember*>(entry); // the entry comes first
    Group* group = member->group;
    count_firing(group);
    entry->callback.store(nullptr, std::memory_order_release);
    // The last touch of the group: once in_progress is 0, group_cancel may return and the group
    // and its members may be gone.
    group->in_progress.fetch_sub(1, std::memory_order_release);
}

} // namespace

void group_init(Group* group, int32_t count) {
    group->ops = nullptr;
    group->signalled.store(0, std::memory_order_relaxed);
    group->hold.owner.store(0, std::memory_order_relaxed);
    group->hold.state.store(0, std::memory_order_relaxed);
    group->waiters = nullptr;
    group->members = nullptr;
    group->remaining.store(count, std::memory_order_relaxed);
    group->in_progress.store(0, std::memory_order_release);
}

void group_add(GroupMember* member, Group* group, Signalable* object) {
    member->group = group;
    member->object = object;
    {
        HoldGuard guard(&group->hold);
        member->next = group->members;
        group->members = member;
    }
    group->in_progress.fetch_add(1, std::memory_order_relaxed);
    member->entry.callback.store(member_fired, std::memory_order_release);
    if (!signalable_add_waiter(object, &member->entry)) {
        // Already signalled: the entry was not registered and no callback will run.
        member->entry.callback.store(nullptr, std::memory_order_relaxed);
        group->in_progress.fetch_sub(1, std::memory_order_relaxed);
        count_firing(group);
    }
}

void group_cancel(Group* group) {
    GroupMember* member;
    {
        HoldGuard guard(&group->hold);
        member = group->members;
        group->members = nullptr;
    }
    for (; member; member = member->next) {
        if (signalable_remove_waiter(member->object, &member->entry)) {
            member->entry.callback.store(nullptr, std::memory_order_relaxed);
            group->in_progress.fetch_sub(1, std::memory_order_relaxed);
        }
    }
    settle([&] { return group->in_progress.load(std::memory_order_acquire) == 0; });
}
