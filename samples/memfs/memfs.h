// memfs: a formatter that keeps its volume in memory.
//
// A sample of a FormatterRequestHandler written against the SDK headers alone: a tree of folders
// and files, opens and listings keyed by the ids the client proposes, every request completed on
// the calling thread. The volume starts empty and vanishes with the handler.
#pragma once

#include <zun/requests.h>

namespace memfs {

// The file types this formatter uses (the protocol passes them through uninterpreted).
constexpr int8_t kFileType = 1;
constexpr int8_t kFolderType = 2;

// The control code that copies the input to the output.
constexpr uint32_t kControlEcho = 1;

// A handler for a marshaller of `marshaller_version` (which decides the flush table it is
// given); capacity is the size the volume reports. Null when memory is short.
zun::FormatterRequestHandler* memfs_create(uint32_t marshaller_version, uint64_t capacity);
void memfs_destroy(zun::FormatterRequestHandler* handler);

} // namespace memfs
