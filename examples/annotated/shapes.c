/* Annotations in a shared object: a value in a register, one in memory, and a probe. */
#include "shapes.h"

#include "veskrt/annotate.h"

long triangle(long n) {
  VESK_ANNOTATE("triangle_begin", VESK_IN_REGISTER(5)); /* n, as it came */
  long sum = 0;
  for (long i = 1; i <= n; ++i) sum += i;
  VESK_ANNOTATE("triangle_end");
  return sum;
}

long square(long n) {
  VESK_ANNOTATE_PROBE("square_begin", 0x5157, VESK_AT_REGISTER(7, -8)); /* just below the stack pointer */
  return n * n;
}
