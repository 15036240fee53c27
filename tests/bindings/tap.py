# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs the test cases of a module and writes TAP. A case is named by its docstring."""

import sys
import traceback
import unittest


class TapResult(unittest.TestResult):
    def __init__(self):
        super().__init__()
        self.bad = False

    def _line(self, status, test, note=""):
        name = test.shortDescription() or str(test)
        print(f"{status} {self.testsRun} {name}{note}", flush=True)

    def addSuccess(self, test):
        self._line("ok", test)

    def addSkip(self, test, reason):
        self._line("ok", test, f" # SKIP {reason}")

    def addError(self, test, err):
        self.bad = True
        self._line("not ok", test)
        for line in "".join(traceback.format_exception(*err)).splitlines():
            print("# " + line)

    addFailure = addError


def main(module="__main__"):
    suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[module])
    print(f"1..{suite.countTestCases()}", flush=True)
    result = TapResult()
    suite.run(result)
    sys.exit(result.bad or result.testsRun == 0)
