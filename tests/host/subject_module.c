/* A shared object to be loaded by name: its constructor allocates, so that it must be known by then. Two are built that
 * differ in one frame's size alone: loaded at the same place, their code has the same return addresses. */
#include <stdlib.h>

void* moduleBlock;

__attribute__((constructor)) static void loaded(void) { moduleBlock = malloc(777); }
__attribute__((destructor)) static void unloaded(void) { free(moduleBlock); }

int moduleFunction(void) { return moduleBlock != NULL; }

void* moduleAllocate(void* (*allocate)(size_t), size_t bytes) {
  volatile char padding[PADDING];
  padding[0] = 1;
  void* block = allocate(bytes);
  padding[1] = padding[0];
  return block;
}
