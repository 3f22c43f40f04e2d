/*
 * A library user's program, built outside the source tree against an
 * installed prefix (once with the CMake package, once with pkg-config): it
 * opens a session on PORT, reads the register "setpoint", lists DIRECTORY on
 * the device when one is given, and closes.
 *
 *   consumer PORT [DIRECTORY]
 *
 * Prints "setpoint = VALUE" and one "entry NAME" a line on standard error
 * (the library's own lines may use standard output); exits 0 when every
 * step succeeded.
 */
#include <modbus_vukra.h>

#include <stdio.h>
#include <stdlib.h>

static int list(modbus_vukra_session *s, const char *directory) {
    if (modbus_vukra_op_protected_mount(s) != 0) {
        fprintf(stderr, "consumer: mount failed, error %d\n", (int)modbus_vukra_op_session_error(s));
        return 1;
    }
    if (modbus_vukra_op_protected_lookup(s, directory, NULL) != 0) {
        fprintf(stderr, "consumer: lookup %s failed, error %d\n", directory, (int)modbus_vukra_op_session_error(s));
        return 1;
    }
    for (;;) {
        modbus_vukra_dir_entry *first = NULL;
        int32_t end = modbus_vukra_op_protected_readdir(s, &first);
        if (end < 0) {
            fprintf(stderr, "consumer: readdir failed, error %d\n", (int)modbus_vukra_op_session_error(s));
            return 1;
        }
        while (first != NULL) {
            modbus_vukra_dir_entry *next = first->next;
            fprintf(stderr, "entry %s\n", first->name);
            free(first);
            first = next;
        }
        if (end == 1) return 0;
    }
}

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: consumer PORT [DIRECTORY]\n");
        return 2;
    }
    modbus_vukra_session *s = modbus_vukra_op_session_open(argv[1]);
    if (s == NULL) {
        fprintf(stderr, "consumer: no session on %s\n", argv[1]);
        return 1;
    }
    int status = 0;
    float setpoint = 0;
    char text[MODBUS_VUKRA_TEXT_SIZE];
    if (modbus_vukra_op_protected_readreg(s, "setpoint", &setpoint, 4) == 4 &&
        modbus_vukra_op_register_btoa(text, "setpoint", &setpoint) != NULL) {
        fprintf(stderr, "setpoint = %s\n", text);
    } else {
        fprintf(stderr, "consumer: cannot read setpoint, error %d\n", (int)modbus_vukra_op_session_error(s));
        status = 1;
    }
    if (argc > 2 && list(s, argv[2]) != 0) status = 1;
    if (modbus_vukra_op_session_close(s) != 0) status = 1;
    return status;
}
