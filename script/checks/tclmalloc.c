/* Preloaded: turns Tcl's pool allocator into malloc, so that checkers see its blocks. */
#include <stdlib.h>

char* TclpAlloc(unsigned size) {
    return malloc(size ? size : 1);
}

char* TclpRealloc(char* memory, unsigned size) {
    return realloc(memory, size ? size : 1);
}

void TclpFree(char* memory) {
    free(memory);
}
