#include "tolm_utils/chomp.h"

#include <cstring>

char* chomp(char* s) {
  size_t n = strlen(s);
  while (n > 0 && (s[n - 1] == '\r' || s[n - 1] == '\n')) s[--n] = '\0';
  return s;
}
