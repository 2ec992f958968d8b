// Pieces of user text shared by its sources (and reachable by its tests); users see usertext.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "usertext/usertext.h"

// The stored text of the key given by `length` units (not necessarily terminated), or null.
// Null too when there is no table.
const wchar_t* usertext_lookup(const wchar_t* key, size_t length);

// False when the table could not be created.
bool usertext_table_ready();

// Runs the lazy load if usertext_set_module armed it and no load has run yet.
void usertext_run_pending_load();

// Runs UTF-8 text (a byte order mark is allowed) as a user text script with `langid` set and
// the `text` command, setting the texts it names. Interpreter messages go to `errors` (may be
// null). Returns the number of messages; memory too short to run the script counts as one.
unsigned usertext_parse(const char* bytes, size_t size, const wchar_t* langid, OutputSink* errors);

// The table as a text file that loads back to the same texts (see usertext_writer.cpp): a new
// block from the process heap (text_free) and its size, or null when memory is short.
char* usertext_table_file(size_t* size);

// Creates or replaces the file and writes the bytes. Returns 0 or the error code.
uint32_t usertext_write_file(const wchar_t* path, const void* bytes, size_t size);
