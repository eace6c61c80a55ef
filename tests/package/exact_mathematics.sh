#!/bin/bash
# exact_mathematics.sh LIBRARY COMPILER NM: of the mathematics library, the shared library calls only functions whose
# results are exact or rounded correctly, and so the same everywhere.
set -euo pipefail

nm=$3
names() { "$nm" -D "$1" "$2" | awk '{ sub(/@.*/, "", $NF); print $NF }' | sort -u; }

used=$(names --undefined-only "$1")
library=$(names --defined-only "$("$2" -print-file-name=libm.so.6)")
[ -n "$used" ] && grep -qx expf <<<"$library"  # else something was not read
exact='(fma|floor|ceil|trunc|round|rint|nearbyint|l?lrint|l?lround|sqrt|fabs|copysign|ldexp|scalbl?n|frexp|modf)f?'
! comm -12 <(echo "$used") <(echo "$library") | grep -vxE "$exact" | grep .
