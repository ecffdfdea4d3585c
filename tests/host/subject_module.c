/* A shared object to be loaded by name: its constructor allocates, so that it must be known by then. */
#include <stdlib.h>

void* moduleBlock;

__attribute__((constructor)) static void loaded(void) { moduleBlock = malloc(777); }
__attribute__((destructor)) static void unloaded(void) { free(moduleBlock); }

int moduleFunction(void) { return moduleBlock != NULL; }
