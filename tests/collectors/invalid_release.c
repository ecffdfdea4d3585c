/* Gives back a pointer into a block; its allocator ends it for that. */
#include <stdlib.h>

int main(void) {
  char* volatile block = malloc(10000);
  block += 64;
  free(block);
  return 0;
}
