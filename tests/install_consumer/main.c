/* Links against an installed libquelora.so and checks its version string. */
#include <quelora/quelora.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    const char* version = qel_get_version();
    const int ok = version != NULL && strcmp(version, "v1.0.23") == 0;
    printf(ok ? "consumer: qel_get_version() = %s\n"
              : "consumer: qel_get_version() returned \"%s\", want \"v1.0.23\"\n",
           version ? version : "(null)");
    return ok ? 0 : 1;
}
