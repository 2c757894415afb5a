#pragma once

// Removes every trailing CR and LF of a NUL-terminated text, in place.
// Returns its argument.
char* chomp(char* s);
