# SPDX-License-Identifier: LGPL-2.1-or-later
"""Reports the unittest cases of the running program in TAP. A case is named by its docstring."""

import sys
import unittest

import tap


def as_function(case):
    def run():
        result = unittest.TestResult()
        case.run(result)
        for _, reason in result.skipped:
            raise tap.Skip(reason)
        for _, trace in result.errors + result.failures:
            raise AssertionError(trace)

    return run


def main():
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"])
    cases = [case for group in suite for case in group]
    sys.exit(tap.run((case.shortDescription(), as_function(case)) for case in cases))
