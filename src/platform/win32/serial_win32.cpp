// Serial port on Win32 communications.
#include "platform/platform.h"

#include <windows.h>

namespace vukra::platform {

namespace {

HANDLE handle_of(NativePort port) { return reinterpret_cast<HANDLE>(port); }

constexpr DWORD kPurgeAll = PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR; // 15
constexpr DWORD kWatchedEvents = EV_RXCHAR | EV_RXFLAG | EV_TXEMPTY;                      // 7
constexpr BYTE kSlipEnd = 0xC0;

} // namespace

NativePort serial_open(const char* name) {
    HANDLE h = CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    return reinterpret_cast<NativePort>(h);
}

PortProblem last_port_problem() {
    switch (GetLastError()) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
        return PortProblem::kMissing;
    case ERROR_ACCESS_DENIED: // on Windows: another program holds the port
    case ERROR_SHARING_VIOLATION:
        return PortProblem::kBusy;
    case ERROR_INVALID_FUNCTION:
    case ERROR_INVALID_HANDLE:
    case ERROR_NOT_SUPPORTED:
        return PortProblem::kNotSerial;
    default:
        return PortProblem::kOther;
    }
}

int serial_configure(NativePort port, std::uint32_t baud, std::uint32_t timeout_ms) {
    HANDLE h = handle_of(port);
    DCB dcb{};
    dcb.DCBlength = sizeof dcb;
    if (!GetCommState(h, &dcb)) {
        return -1;
    }
    dcb.BaudRate = baud;
    dcb.ByteSize = 8;
    dcb.Parity = NOPARITY;
    dcb.StopBits = ONESTOPBIT;
    dcb.fBinary = TRUE;
    dcb.fParity = FALSE;
    dcb.fOutxCtsFlow = FALSE;
    dcb.fOutxDsrFlow = FALSE;
    dcb.fDtrControl = DTR_CONTROL_ENABLE;
    dcb.fRtsControl = RTS_CONTROL_DISABLE;
    dcb.fDsrSensitivity = FALSE;
    dcb.fTXContinueOnXoff = TRUE;
    dcb.fOutX = FALSE;
    dcb.fInX = FALSE;
    dcb.fErrorChar = FALSE;
    dcb.fNull = FALSE;
    dcb.fAbortOnError = FALSE;
    dcb.XonLim = 0;
    dcb.XoffLim = 0;
    dcb.XonChar = 0;
    dcb.XoffChar = 0;
    dcb.ErrorChar = 0;
    dcb.EofChar = 0;
    dcb.EvtChar = static_cast<char>(kSlipEnd);
    dcb.wReserved = 0;
    if (!SetCommState(h, &dcb)) {
        return -1;
    }
    COMMTIMEOUTS t{};
    GetCommTimeouts(h, &t);
    t.ReadIntervalTimeout = 0;
    t.ReadTotalTimeoutMultiplier = 0;
    t.ReadTotalTimeoutConstant = timeout_ms;
    SetCommTimeouts(h, &t);
    return 0;
}

void serial_setup_queues(NativePort port) {
    HANDLE h = handle_of(port);
    SetCommMask(h, kWatchedEvents);
    SetupComm(h, 65536, 65536);
}

long serial_read_some(NativePort port, void* buffer, std::size_t capacity, std::uint32_t timeout_ms) {
    HANDLE h = handle_of(port);
    DWORD errors = 0;
    COMSTAT status{};
    DWORD want = 1; // nothing queued: wait for one byte under the total time-out
    if (ClearCommError(h, &errors, &status) && status.cbInQue > 0) {
        want = status.cbInQue < capacity ? status.cbInQue : static_cast<DWORD>(capacity);
    } else {
        // The wait is what is left of an exchange's time-out, which may be
        // less than the port's.
        COMMTIMEOUTS t{};
        if (GetCommTimeouts(h, &t) && t.ReadTotalTimeoutConstant != timeout_ms) {
            t.ReadTotalTimeoutConstant = timeout_ms;
            SetCommTimeouts(h, &t);
        }
    }
    DWORD got = 0;
    if (!ReadFile(h, buffer, want, &got, nullptr)) return -1;
    return static_cast<long>(got);
}

long serial_write(NativePort port, const void* bytes, std::size_t count) {
    HANDLE h = handle_of(port);
    ClearCommBreak(h);
    DWORD written = 0;
    if (!WriteFile(h, bytes, static_cast<DWORD>(count), &written, nullptr)) return -1;
    return static_cast<long>(written);
}

void serial_purge(NativePort port) { PurgeComm(handle_of(port), kPurgeAll); }

void serial_clear_break(NativePort port) { ClearCommBreak(handle_of(port)); }

void serial_close(NativePort port) {
    HANDLE h = handle_of(port);
    PurgeComm(h, kPurgeAll);
    CancelIo(h);
    CloseHandle(h);
}

bool pty_open(PseudoTerminal&) { return false; }

const char* last_error_text() {
    thread_local char text[512];
    DWORD code = GetLastError();
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                             sizeof text, nullptr);
    if (n == 0) wsprintfA(text, "error %lu\r\n", static_cast<unsigned long>(code));
    return text;
}

} // namespace vukra::platform
