/* A module that every thread's static block must have room for. */
static __thread char room[256] __attribute__((tls_model("initial-exec")));

int moduleRoom(void) { return room[0]++; }
