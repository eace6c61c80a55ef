#!/usr/bin/env bash
# python_doctest.sh LIBRARY: the examples in the docstrings of python/talvo and the tests of its writer, on this library.
set -euo pipefail
cd "$(dirname "$0")/../.."
export TALVO_LIBRARY=$1 PYTHONPATH=python PYTHONDONTWRITEBYTECODE=1
for module in records package model; do /usr/bin/python3 -m doctest "python/talvo/$module.py"; done
/usr/bin/python3 tests/tools/python_package_test.py
