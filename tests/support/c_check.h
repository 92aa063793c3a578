/* The assertion of the C test programs: a failed condition is reported with
 * its place and counted in g_failures, and the program goes on, so that one
 * run shows every failure. Each program is one translation unit. */
#ifndef KAVREL_TESTS_C_CHECK_H
#define KAVREL_TESTS_C_CHECK_H

#include <stdio.h>

static int g_failures = 0;

#define CHECK(cond) \
    ((cond) ? (void)0 : (void)(fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond), ++g_failures))

#endif
