#!/usr/bin/env bash
# The Python package's tests against the libraries of one build folder:
#   scripts/test-python.sh build/gcc
# They need kavrel_direct_sim (simulated instruments) and kavrel_direct (for
# the binding checks), and Debian's interpreter with python3-numpy,
# python3-matplotlib and python3-pytest.
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)

library() {
  local found
  found=$(find "$build" -name "$1" \( -type f -o -type l \) -print -quit)
  [ -n "$found" ] || { echo "$0: no $1 in $build (build that target first)" >&2; exit 1; }
  echo "$found"
}
case "$(uname -s)" in
  MINGW* | MSYS* | CYGWIN*) suffix=dll prefix="" ;;
  Darwin) suffix=dylib prefix=lib ;;
  *) suffix=so prefix=lib ;;
esac
KAVREL_DIRECT_LIBRARY=$(library "${prefix}kavrel_direct.$suffix")
KAVREL_DIRECT_SIM_LIBRARY=$(library "${prefix}kavrel_direct_sim.$suffix")
export KAVREL_DIRECT_LIBRARY KAVREL_DIRECT_SIM_LIBRARY
export PYTHONPATH="$root/python${PYTHONPATH:+:$PYTHONPATH}"
export PYTHONDONTWRITEBYTECODE=1
# An unbuffered interpreter also unbuffers the C library's standard output;
# the tests should see it buffered, as applications do.
unset PYTHONUNBUFFERED
export MPLBACKEND=Agg

cd "$root/python"
status=0
/usr/bin/python3 -m pytest -p no:cacheprovider -q tests || status=$?
# pytest's 5 means it collected no test: never a pass.
[ "$status" -ne 5 ] || echo "$0: pytest found no tests" >&2
[ "$status" -eq 0 ]
