#include "protocol/operation.h"

namespace zun {

namespace {

// clang-format off
constexpr OperationInfo kOperations[kOperationCount] = {
    {L"cancel", kMinimumRequestSize[0], 1},
    {L"disconnect", kMinimumRequestSize[1], 1},
    {L"version", kMinimumRequestSize[2], 1},
    {L"open", kMinimumRequestSize[3], 1},
    {L"replace", kMinimumRequestSize[4], 1},
    {L"move", kMinimumRequestSize[5], 1},
    {L"movereplace", kMinimumRequestSize[6], 1},
    {L"delete", kMinimumRequestSize[7], 1},
    {L"close", kMinimumRequestSize[8], 1},
    {L"flush", kMinimumRequestSize[9], 1},
    {L"list", kMinimumRequestSize[10], 1},
    {L"listend", kMinimumRequestSize[11], 1},
    {L"read", kMinimumRequestSize[12], 1},
    {L"write", kMinimumRequestSize[13], 1},
    {L"setsize", kMinimumRequestSize[14], 1},
    {L"capacity", kMinimumRequestSize[15], 1},
    {L"flushmedia", kMinimumRequestSize[16], 1},
    {L"control", kMinimumRequestSize[17], 1},
    {L"mediainfo", kMinimumRequestSize[18], 2},
    {L"access", kMinimumRequestSize[19], 6},
};
// clang-format on

} // namespace

const OperationInfo* operation_find(uint32_t operation, uint32_t marshaller_version) {
    if (operation >= kOperationCount) return nullptr;
    const OperationInfo& info = kOperations[operation];
    return marshaller_version >= info.min_version ? &info : nullptr;
}

ProtocolError operation_check(uint32_t operation, uint32_t size, uint32_t marshaller_version) {
    const OperationInfo* info = operation_find(operation, marshaller_version);
    if (!info || size < info->min_size) return ProtocolError::Invalid;
    return ProtocolError::Success;
}

} // namespace zun
