#include "layout.c"
