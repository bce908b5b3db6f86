/* A call the portability check must refuse: memfd_create is Linux's alone. */
#define _GNU_SOURCE
#include <sys/mman.h>

int tz_portability_canary(void) { return memfd_create("canary", 0); }
