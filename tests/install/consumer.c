/*
 * A library user's program, built outside the source tree against an
 * installed prefix (once with the CMake package, once with pkg-config): it
 * opens a session on PORT, reads the register "setpoint" and closes.
 *
 *   consumer PORT
 *
 * Prints "setpoint = VALUE" on standard error (the library's own lines may
 * use standard output); exits 0 when every step succeeded.
 */
#include <modbus_vukra.h>

#include <stdio.h>

int main(int argc, char **argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: consumer PORT\n");
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
    if (modbus_vukra_op_session_close(s) != 0) status = 1;
    return status;
}
