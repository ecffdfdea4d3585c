// A module for heap_program to load.
#include <stddef.h>

__attribute__((noinline)) void* moduleAllocate(void* (*allocate)(size_t), size_t bytes) {
  volatile char padding[PADDING];
  padding[0] = 1;
  void* block = allocate(bytes);
  padding[1] = padding[0];
  return block;
}
