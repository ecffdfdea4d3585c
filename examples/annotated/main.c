/* A program with annotations. Try: veskrun -collector annotations -- annotated */
#include <stdio.h>

#include "shapes.h"
#include "veskrt/annotate.h"

int main(void) {
  VESK_ANNOTATE("begin", VESK_CONSTANT(1));
  printf("%ld %ld\n", triangle(10), square(10));
  VESK_ANNOTATE("end", VESK_CONSTANT(2));
  return 0;
}
