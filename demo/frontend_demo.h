// The command-line front-end at work: zun.exe, a real process, finding the library and
// dispatching against its command list.
#pragma once

// Returns the process exit code: 0 when every run gave what it should.
int frontend_demo();
