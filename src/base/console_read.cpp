// Console line reads that can be broken off. A console read blocks in the console until a line
// is complete and cannot be cancelled as I/O; instead the cancel callback types an Enter into
// the console's input, which ends the line, and the reader, seeing the cancel source
// signalled, gives up on the empty line.

#include "base/owned_handle.h"
#include "base/transfer.h"

void console_read_break(Transfer* transfer) {
    // CONIN$ is the console's input whatever the transfer's handle is (it may be a duplicate,
    // or standard input redirected to the same console).
    OwnedHandle input(CreateFileW(L"CONIN$", GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                                  nullptr));
    HANDLE target = input.valid() ? input.get() : transfer->handle;
    INPUT_RECORD records[2] = {};
    for (int i = 0; i < 2; ++i) {
        records[i].EventType = KEY_EVENT;
        KEY_EVENT_RECORD& key = records[i].Event.KeyEvent;
        key.bKeyDown = i == 0;
        key.wRepeatCount = 1;
        key.wVirtualKeyCode = VK_RETURN;
        key.wVirtualScanCode = static_cast<WORD>(MapVirtualKeyW(VK_RETURN, MAPVK_VK_TO_VSC));
        key.uChar.UnicodeChar = L'\r';
    }
    DWORD written;
    WriteConsoleInputW(target, records, 2, &written);
}

uint32_t console_read(Transfer* transfer, uint8_t* buffer, DWORD length, DWORD* moved) {
    *moved = 0;
    if (transfer->cancel && !transfer_cancel_register(transfer)) return ERROR_OPERATION_ABORTED;
    uint32_t error = 0;
    DWORD got = 0;
    for (;;) {
        if (!ReadFile(transfer->handle, buffer, length, &got, nullptr)) {
            error = GetLastError();
            got = 0;
            break;
        }
        // Nothing at all, not even a line end: the console's end of input (Ctrl+Z).
        if (got == 0) {
            error = ERROR_HANDLE_EOF;
            break;
        }
        // A line arrives with its CR LF; the caller gets the text only. When the buffer held
        // the CR but not the LF, the LF is still waiting in the console: take it out.
        if (got >= 2 && buffer[got - 2] == '\r' && buffer[got - 1] == '\n') {
            got -= 2;
        } else if (buffer[got - 1] == '\r') {
            --got;
            char line_feed;
            DWORD dropped;
            ReadFile(transfer->handle, &line_feed, 1, &dropped, nullptr);
        }
        if (got) break;
        if (transfer->cancel && signalable_is_signalled(transfer->cancel)) break;
        if (transfer_broken_off(transfer)) break;
    }
    if (transfer->cancel) transfer_cancel_remove(transfer);
    if (!error && !got) error = ERROR_OPERATION_ABORTED;
    *moved = got;
    return error;
}
