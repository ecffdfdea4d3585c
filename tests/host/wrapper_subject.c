/* A program with heap functions of its own, which stand in front of whatever comes next. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>

static unsigned count;

void* malloc(size_t bytes) {
  static void* (*next)(size_t);
  if (next == NULL) next = (void* (*)(size_t))dlsym(RTLD_NEXT, "malloc");
  if (bytes >= 6000 && bytes < 6100) ++count;
  return next(bytes);
}

int main(void) {
  for (size_t n = 0; n < 100; ++n) free(malloc(6000 + n));
  printf("%u\n", count);
  return 0;
}
