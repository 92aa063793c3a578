/* Compiled, never run: the public header under MSVC's rules as clang
 * emulates them (x64 Microsoft ABI and struct layout, _MSC_VER set), as C and
 * as C++, in an application that imports from the DLL. The record sizes the
 * headers assert must hold there too. */
#include "kavrel_direct.h"
#include "kavrel_sim.h"

typedef int32_t (*select_device_fn)(int32_t);

select_device_fn kavrel_header_check(void) {
    return &kavrel_direct_select_device;
}
