// Fatal checks of the program's internal invariants. Ordinary input never
// trips them; when one fails the process reports the expression and aborts.
#pragma once

#include <cstdio>
#include <cstdlib>

#define pelvane_invariant(expr)                                                                  \
  do {                                                                                           \
    if (!(expr)) {                                                                               \
      fprintf(stderr, "v2/pelvane: %s:%d: Assertion `%s' failed.\n", __FILE__, __LINE__, #expr); \
      abort();                                                                                   \
    }                                                                                            \
  } while (0)
