// Setting and clearing environment variables on every platform we test on.
#ifndef KAVREL_TESTS_ENVIRONMENT_H
#define KAVREL_TESTS_ENVIRONMENT_H

#include <cstdlib>

namespace kavrel::test {

// On Windows an empty value removes the variable instead: the C runtime
// keeps no empty variables.
inline void set_env(const char *name, const char *value) {
#ifdef _WIN32
    _putenv_s(name, value);
#else
    setenv(name, value, 1);
#endif
}

inline void unset_env(const char *name) {
#ifdef _WIN32
    _putenv_s(name, "");
#else
    unsetenv(name);
#endif
}

}  // namespace kavrel::test

#endif
