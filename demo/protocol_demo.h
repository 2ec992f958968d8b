// The protocol part of the demo: a scripted session with the sample formatter, traced.
#pragma once

// Returns the process exit code: 0 when the session went as it should.
int protocol_demo();
