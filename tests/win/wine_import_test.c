/*
 * Runs on Windows (or wine): a C program linked the way a mingw user links
 * it, with the import library libmodbus_vukra.dll.a, not LoadLibrary. It
 * takes the address of every export (the list the build generates from the
 * library's export list), so the program links and the loader starts it
 * only when the import library and the DLL carry them all; then it opens a
 * session on a COM port and reads registers.
 *
 *   wine_import_test COM5
 *
 * COM5 leads to vukra-sim playing the device with the example table (also
 * in the working directory as table.xml).
 */
#include "modbus_vukra.h"

#include <stdio.h>
#include <string.h>

typedef void (*any_function)(void);

struct export_entry {
    const char *name;
    any_function address;
};

static const struct export_entry all_exports[] = {
#include "all_exports.inc"
};

static int passed = 0;
static int failed = 0;

static void check(int ok, const char *what) {
    if (ok) {
        ++passed;
    } else {
        ++failed;
        printf("FAILED: %s\n", what);
    }
}

int main(int argc, char **argv) {
    const char *port = argc > 1 ? argv[1] : "COM5";
    size_t i;
    for (i = 0; i < sizeof all_exports / sizeof all_exports[0]; ++i)
        check(all_exports[i].address != NULL, all_exports[i].name);

    check(modbus_vukra_op_session_error(NULL) == 4095, "session_error of a null session is 4095");
    modbus_vukra_session *s = modbus_vukra_op_session_open(port);
    check(s != NULL, "session_open on the COM port");
    if (s != NULL) {
        float setpoint = 0;
        check(modbus_vukra_op_protected_readreg(s, "setpoint", &setpoint, 4) == 4 && setpoint == 21.5f,
              "read a real from the device");
        int16_t trim = 0;
        check(modbus_vukra_op_protected_readreg(s, "offset_trim", &trim, 2) == 2 && trim == -12,
              "read an int16 from the device");
        char text[MODBUS_VUKRA_TEXT_SIZE];
        check(modbus_vukra_op_register_btoa(text, "offset_trim", &trim) != NULL && strcmp(text, "-12") == 0,
              "register_btoa");
        check(modbus_vukra_op_protected_readreg(s, "no_such_register", &trim, 2) == -1,
              "an unknown register gives -1");
        check(modbus_vukra_op_session_close(s) == 0, "session_close");
    }
    printf("import library: %d exports, %d passed, %d failed\n",
           (int)(sizeof all_exports / sizeof all_exports[0]), passed, failed);
    return failed == 0 ? 0 : 1;
}
