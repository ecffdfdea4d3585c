#ifndef EXAMPLES_ANNOTATED_SHAPES_H
#define EXAMPLES_ANNOTATED_SHAPES_H

long triangle(long n);
long square(long n);

#endif
