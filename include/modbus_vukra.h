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

/*
 * Called on the Session's timer thread once a second while a filesystem is
 * mounted, after the status request (whatever its answer: session_error
 * tells it). It may call the exports, and may close its own Session (the
 * thread then ends once the callback returns); it should return promptly,
 * since a close from another thread waits for it.
 */
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
 *
 * "tcp://HOST:PORT" (HOST a name, an IPv4 address or an IPv6 address in
 * brackets) opens a TCP connection to a serial device server in raw mode
 * instead, such as ser2net or a terminal server. The same bytes travel; the
 * 400000-baud 8N1 settings are not applied, since the device server owns
 * the line and sets its speed (set it to 400000 baud 8N1 there); the 4000 ms
 * read time-out holds. A name that does not parse, a host that does not
 * resolve and a connection refused or not made within the time-out give
 * NULL. A connection that drops makes operations fail as on a silent line
 * (-1 for registers, 513 for files) and the next operation connects again.
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

/*
 * The window (an HWND on Windows) that is sent message_number once a second
 * while mounted (wParam 0, lParam the Session), by SendNotifyMessage, after
 * the status request. Windows only: elsewhere there are no windows, and the
 * handle is stored and never used; the callback works everywhere.
 */
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

/* ---- remote filesystem --------------------------------------------------- */

/*
 * Every file operation stores the device's status in the Session's error
 * word (read it with session_error): 0 on success. A non-zero status makes
 * the operation return -1; so do a failed transaction (error word 513 when
 * the device did not answer within the port's time-out) and a message that
 * cannot be encoded or decoded (error word unchanged).
 *
 * Paths holding "/mem" anywhere are served by the local mirror once
 * protected_getfs has made one; read, write, readdir, seek, seekdir and
 * telldir follow the last path operation.
 */

/* The four attribute words of a lookup; their meaning is the device's. */
typedef struct modbus_vukra_attributes {
    uint32_t words[4];
} modbus_vukra_attributes;

/* The four usage words of fsstat; their meaning is the device's. */
typedef struct modbus_vukra_usage {
    uint32_t words[4];
} modbus_vukra_usage;

/* The three words of mkfs; their meaning is the device's. */
typedef struct modbus_vukra_mkfs_params {
    uint32_t words[3];
} modbus_vukra_mkfs_params;

/* Bytes of a listing entry's name, its NUL included. */
#define MODBUS_VUKRA_NAME_SIZE 256

/*
 * One entry of a directory listing, in a singly linked list ending in NULL.
 * The library allocates each entry; the host frees each one: with free() on
 * POSIX systems, with LocalFree() on Windows (Marshal.FreeHGlobal from C#).
 */
typedef struct modbus_vukra_dir_entry {
    char name[MODBUS_VUKRA_NAME_SIZE]; /* NUL-terminated */
    struct modbus_vukra_dir_entry *next;
} modbus_vukra_dir_entry;

/* The status request (also sent once a second while mounted): 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_null(modbus_vukra_session *session);

/* Mounts the device's filesystem with the Session's identity and flags: 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_mount(modbus_vukra_session *session);

/*
 * Looks path up from the current handle and makes the object found the
 * current handle, at position 0; attributes (may be NULL) receives its four
 * words. 0 or -1.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_lookup(modbus_vukra_session *session, const char *path,
                                                          modbus_vukra_attributes *attributes);

/*
 * Reads up to count bytes (at most 1024 per call) of the current file at
 * the current position into buffer: the bytes read (0 at the end), or -1.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_read(modbus_vukra_session *session, void *buffer,
                                                        int32_t count);

/* Writes up to count bytes (at most 1024 per call): the bytes written, or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_write(modbus_vukra_session *session, const void *buffer,
                                                         int32_t count);

/* Creates a file, which becomes the current handle: 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_create(modbus_vukra_session *session, const char *path);

MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_remove(modbus_vukra_session *session, const char *path);

MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_rename(modbus_vukra_session *session, const char *old_path,
                                                          const char *new_path);

/* Makes a directory, which becomes the current handle: 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_mkdir(modbus_vukra_session *session, const char *path);

MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_rmdir(modbus_vukra_session *session, const char *path);

/*
 * Reads the next entries of the current directory. *first (may be NULL to
 * discard them) receives the head of a new list, or NULL when none came;
 * the host frees every entry (see modbus_vukra_dir_entry). Returns the
 * end-of-directory flag (0 or 1), or -1.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_readdir(modbus_vukra_session *session,
                                                           modbus_vukra_dir_entry **first);

/* The usage of the filesystem holding path into usage: 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_fsstat(modbus_vukra_session *session, const char *path,
                                                          modbus_vukra_usage *usage);

/* Makes a filesystem on the device with the three words of params: 0 or -1. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_mkfs(modbus_vukra_session *session,
                                                        const modbus_vukra_mkfs_params *params);

/*
 * Moves the current file's position: whence 0 sets it to offset, 1 adds
 * offset, 2 subtracts offset from the current position. Returns the new
 * position, or -1 with error word -31 (a directory is open, not a file) or
 * 21 (nothing is open). Answered without the device.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_seek(modbus_vukra_session *session, uint32_t offset,
                                                        int32_t whence);

/*
 * Sets the current directory's cookie and returns it, or -1 with error word
 * -56 (a file is open, not a directory) or 21 (nothing is open).
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_seekdir(modbus_vukra_session *session, int32_t cookie);

/* The current directory's cookie, or -1 with the errors of seekdir. */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_telldir(modbus_vukra_session *session);

/* ---- the device's card and the /mem mirror -------------------------------- */

/*
 * Copies the device's filesystem image ("/dev/sdcard0") into the library's
 * local card, mounts it on "/mem" and makes the mirror: from then on every
 * path holding "/mem" is served locally. Only the groups of blocks in use
 * travel; the others are zeroed locally. A second getfs replaces the first
 * mirror. Follow it with session_info (direction 1, phase 1 header, 2 data,
 * 3 signature, 4 done, progress in percent, 100 only when done) and stop it
 * with cancelfs from another thread. 0, or -1 with the error word: -11
 * cancelled, -12 not an image the library takes (unknown signature, block
 * size above 512, sizes beyond the card), -13 the device stopped giving
 * bytes, -14 the local card failed, or what the failing remote operation
 * stored (513: the device did not answer). After a failure "/mem" is not
 * mounted and its paths go to the device.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_getfs(modbus_vukra_session *session);

/*
 * Copies the local card (with what was written under "/mem") back to the
 * device: direction 2, the same phases, errors and cancel as getfs. -1 at
 * once when no getfs made a mirror. A failed or cancelled put leaves the
 * device's card partly written; the signature is written last.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_op_protected_putfs(modbus_vukra_session *session);

/* ---- beyond the op family: the put of what changed ------------------------ */

/*
 * Writes back to the device only what the library wrote on the local card
 * since the last getfs or put of this process: the data groups it wrote,
 * then the pieces of the metadata and the allocation map that differ, the
 * header last. Before writing it reads back the device's header, map and
 * metadata and compares them with what getfs fetched. The same lock,
 * phases (1 the check, 2 data, 3 metadata, map and header, 4 done) and
 * cancel (after each piece read, at each group) as putfs. The local card is
 * only read. Returns the bytes written (0: nothing changed, nothing
 * written), or -1 with the error word: -15 no getfs in this process made
 * the mirror, -16 the device's card changed since (another program wrote
 * it: a full putfs overwrites that, a new getfs takes it), -17 the local
 * card changed outside the library since getfs, -11, -13, -14 and the
 * remote statuses as putfs. Nothing is written on -15, -16 and -17.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_protected_putfs_changed(modbus_vukra_session *session);

/* ---- beyond the op family: diagnostics, failures in words, strict values -- */

/*
 * Receives one line of the library's diagnostics (frames on the line,
 * "ready", times, the system's messages), its line end removed. Called on
 * whichever thread printed it, the timer's included, one call at a time;
 * it must not call modbus_vukra_set_log.
 */
typedef void (*modbus_vukra_log_callback)(void *context, const char *line);

/*
 * Where the library's diagnostics go, for the whole process: by default
 * they are printed with printf on standard output; with a callback each
 * line goes to callback(context, line) instead and nothing is printed.
 * NULL restores the default.
 */
MODBUS_VUKRA_API void modbus_vukra_set_log(modbus_vukra_log_callback callback, void *context);

/* What the failed operation was doing, for modbus_vukra_explain. */
enum {
    MODBUS_VUKRA_DOING_OTHER = 0,
    MODBUS_VUKRA_DOING_LOOKUP = 1,          /* a status nobody knows means "no such file" */
    MODBUS_VUKRA_DOING_REMOVING_DIRECTORY = 2 /* "exists, or not empty" means "not empty" */
};

/*
 * Puts a failure into words, for a person, in text (size bytes, NUL
 * included; cut to fit), and returns the errno a POSIX program sees.
 * status is the error word of the failed call: the words are "status N
 * (meaning)", "status N" for one the library does not know (its meaning is
 * the device's: EIO, or ENOENT when doing a lookup). With status 0 (a call
 * that failed without a status: an open that returned NULL, a register
 * transaction) and with 513 (a failed exchange), the words say what the
 * calling thread's last open or exchange met: no such device, permission
 * denied, not a serial port, the resolver's or the connection's reason, a
 * time-out, a connection closed in the middle of a reply, a reply that does
 * not decode. Returns 0 when nothing failed.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_explain(int32_t status, int32_t doing, char *text, int32_t size);

/*
 * Text to the register's value as the tools read a value typed by a
 * person: the whole text must be a value of the register's type, in its
 * range (integers decimal, or hexadecimal after "0x"; reals decimal, "1e3"
 * included; a buffer's elements separated by blanks; no blank around, no
 * text after, no "inf" or "nan"). Writes the value's words (room for 256
 * bytes) and returns 0; -1, with value untouched, for anything else or an
 * unknown register. Unlike register_atob, no partial parse is taken.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_register_parse(void *value, const char *name, const char *text);

/*
 * How far the image transfer running (or last run) is, in the bytes of the
 * card that cross the line: bytes[0] so far, bytes[1] in all (0 until the
 * image's map is read). session_info's progress counts every group of the
 * card, used or not, so a card whose files lie in its first groups shows 0
 * for most of a transfer; this is the share to show a user. Like
 * session_info it takes only the state lock: call it from another thread
 * while getfs, putfs or putfs_changed runs. 0, or -1 for a null argument.
 */
MODBUS_VUKRA_API int32_t modbus_vukra_transfer_bytes(modbus_vukra_session *session, uint64_t *bytes);

#ifdef __cplusplus
}
#endif

#endif /* MODBUS_VUKRA_H */
