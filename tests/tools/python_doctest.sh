#!/usr/bin/env bash
# python_doctest.sh LIBRARY: the examples in the docstrings of python/talvo, run from the repository on this library.
set -euo pipefail
cd "$(dirname "$0")/../.."
export TALVO_LIBRARY=$1 PYTHONPATH=python PYTHONDONTWRITEBYTECODE=1
/usr/bin/python3 -m doctest python/talvo/model.py
