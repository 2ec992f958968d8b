// Private pipe pairs and the null device: the handles with which the system talks to the
// processes it starts.
#pragma once

#include <cstdint>

#include <windows.h>

// Makes a pipe with a name used once. The server end reads (and writes when `duplex`); the
// client end writes (and reads when `duplex`). `overlapped` makes both ends asynchronous.
// Neither end is inheritable. On failure both outputs are INVALID_HANDLE_VALUE.
uint32_t pipe_create(bool duplex, bool overlapped, HANDLE* server, HANDLE* client);

// Opens "\\.\NUL" for reading and writing, shared; INVALID_HANDLE_VALUE on failure.
uint32_t null_open(HANDLE* handle);
