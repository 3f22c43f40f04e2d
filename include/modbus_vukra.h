/*
 * modbus_vukra: host access to a vukra device on a serial port.
 *
 * A host opens one Session on a serial port, passes it to every later call
 * and closes it at the end. Only one connected Session exists per process.
 *
 * Results: 0, a count or a descriptor on success and -1 on failure, with the
 * detail in the Session's error word; session_hwnd, session_callback and
 * session_error answer 4095 for a null Session; the open calls answer NULL.
 */
#ifndef MODBUS_VUKRA_H
#define MODBUS_VUKRA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define MODBUS_VUKRA_API
#else
#define MODBUS_VUKRA_API __attribute__((visibility("default")))
#endif

/* The per-connection record; its contents belong to the library. */
typedef struct modbus_vukra_session modbus_vukra_session;

/* Called on the timer thread once a second while a filesystem is mounted. */
typedef void (*modbus_vukra_callback)(modbus_vukra_session *session);

/* Words of modbus_vukra_op_session_info, in order. */
enum {
    MODBUS_VUKRA_INFO_REQUEST_FLAGS = 0, /* the four request flag bytes as one word */
    MODBUS_VUKRA_INFO_REPLY_FLAGS = 1,   /* the four reply flag bytes as one word */
    MODBUS_VUKRA_INFO_DURATION_MS = 2,   /* last transport duration */
    MODBUS_VUKRA_INFO_BITS_PER_SECOND = 3,
    MODBUS_VUKRA_INFO_DIRECTION = 4,     /* image transfer direction */
    MODBUS_VUKRA_INFO_PHASE = 5,         /* image transfer phase, 4 = done */
    MODBUS_VUKRA_INFO_PROGRESS = 6,
    MODBUS_VUKRA_INFO_WORDS = 7
};

/*
 * Opens a Session on the named serial port ("COM1" on Windows, a device path
 * such as "/dev/ttyUSB0" elsewhere) at 400000 baud 8N1 with a 4000 ms read
 * time-out. With NULL, and a Session already open, it returns an unconnected
 * record (the kind that serves the local mirror); NULL otherwise.
 */
MODBUS_VUKRA_API modbus_vukra_session *modbus_vukra_op_session_open(const char *port_name);

/*
 * Like session_open, on a port the host has opened itself: a HANDLE on
 * Windows, a file descriptor cast through intptr_t elsewhere.
 */
MODBUS_VUKRA_API modbus_vukra_session *modbus_vukra_op_session_open2(void *port_handle);

MODBUS_VUKRA_API int32_t modbus_vukra_op_session_close(modbus_vukra_session *session);

/* Writes MODBUS_VUKRA_INFO_WORDS words into info. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_session_info(modbus_vukra_session *session, int32_t *info);

MODBUS_VUKRA_API int32_t modbus_vukra_op_session_error(modbus_vukra_session *session);

/* The window (an HWND on Windows) that is sent message_number once a second while mounted. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_session_hwnd(modbus_vukra_session *session, void *window,
                                                      uint32_t message_number);

MODBUS_VUKRA_API int32_t modbus_vukra_op_session_callback(modbus_vukra_session *session,
                                                          modbus_vukra_callback callback);

/* Asks a running image transfer to stop; callable from any thread. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_cancelfs(modbus_vukra_session *session);

/* ---- registers, by their names in "table.xml" ---------------------------- */

/* The longest text register_btoa writes, its NUL included. */
#define MODBUS_VUKRA_TEXT_SIZE 256

/*
 * Reads a register into value: its words in register order, in host order
 * (a 32-bit value as one host-order number). Copies count bytes, at most
 * 256; returns that count, or -1.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_readreg(modbus_vukra_session *session, const char *name,
                                                           void *value, int32_t count);

/* Writes a register from value; returns the bytes taken (at most 256), or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_writereg(modbus_vukra_session *session, const char *name,
                                                            const void *value, int32_t count);

/*
 * The register's value as text, by its type, into text (room for
 * MODBUS_VUKRA_TEXT_SIZE bytes). Returns text, or NULL for an unknown
 * register or a type that cannot be shown.
 */
MODBUS_VUKRA_API char *modbus_vukra_op_register_btoa(char *text, const char *name, const void *value);

/*
 * Text to the register's value, by its type: 0, or -1 for an unknown
 * register or a type that cannot be written from text (uint16, uint32 and
 * buffers other than buffer2float). Text that does not parse still gives 0
 * and leaves value as it was.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_register_atob(void *value, const char *name, const char *text);

#ifdef __cplusplus
}
#endif

#endif /* MODBUS_VUKRA_H */
