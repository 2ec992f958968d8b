// zundemo: shows the library at work.
#include "base/thread.h"
#include "protocol_demo.h"

int wmain() {
    int result = protocol_demo();
    // As every front-end does after its command: join the threads the runtime started.
    process_exit_work();
    return result;
}
