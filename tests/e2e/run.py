# SPDX-License-Identifier: Apache-2.0
"""Runs the end-to-end tests, all of them or those whose names hold one of the arguments, and prints the counts."""

import json
import os
import pathlib
import shutil
import signal
import sys
import time
import unittest

sys.dont_write_bytecode = True
import harness  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
PROGRAMS = {"promtool": "prometheus", "dockerd": "docker.io", "ctr": "containerd", "runc": "runc", "podman": "podman",
            "newuidmap": "uidmap", "crun": "crun"}


class TimedResult(unittest.TextTestResult):
    """Says how long each test took."""

    def startTest(self, test):
        self.began = time.monotonic()
        super().startTest(test)

    def stopTest(self, test):
        super().stopTest(test)
        self.stream.writeln(f"  {time.monotonic() - self.began:.1f} s")


def why_not():
    """Why this machine cannot run them; None when it can."""
    if os.geteuid() != 0:
        return "needs root"
    if not os.path.exists("/sys/kernel/tracing/instances"):
        return "needs tracefs at /sys/kernel/tracing"
    for program, package in PROGRAMS.items():
        if shutil.which(program, path="/usr/sbin:/usr/bin") is None:
            return f"needs {program} (apt-get install {package})"
    return None


def main():
    reason = why_not()
    if reason and not os.environ.get("CE_TESTS_MUST_RUN"):
        print(f"skipped: {reason}\npassed: 0\nskipped: 1")
        return 0
    with harness.alone_on_this_machine():
        return run_tests()


class EveryAlarm(unittest.TestCase):
    """What all agents of the tests before wrote to their standard output."""

    def test_conforms_to_its_schema(self):
        alarms = [json.loads(line) for output in harness.Agent.outputs for _, line in output.arrived]
        envelopes = [alarm for alarm in alarms if "v" in alarm]
        print(f"\n  {len(alarms)} alarms, {len(envelopes)} of them in envelopes")
        self.assertEqual(harness.faults("envelope.schema.json", envelopes), [])
        self.assertEqual(harness.faults("alarm.schema.json", [alarm for alarm in alarms if "v" not in alarm]), [])
        self.assertTrue(alarms or sys.argv[1:])


def run_tests():
    loader = unittest.TestLoader()
    loader.testNamePatterns = [f"*{word}*" for word in sys.argv[1:]] or None
    suite = loader.discover(str(HERE))
    suite.addTest(EveryAlarm("test_conforms_to_its_schema"))
    unittest.installHandler()  # the first signal ends the run with the test that runs, the second one at once
    signal.signal(signal.SIGTERM, signal.getsignal(signal.SIGINT))
    result = unittest.TextTestRunner(stream=sys.stdout, verbosity=2, resultclass=TimedResult).run(suite)
    failed = sorted({getattr(test, "test_case", test).id() for test, _ in result.failures + result.errors})
    print(f"passed: {result.testsRun - len(failed) - len(result.skipped)}", f"skipped: {len(result.skipped)}",
          *(f"failed: {name}" for name in failed), sep="\n")
    return 0 if result.wasSuccessful() and result.testsRun and not result.shouldStop else 1


if __name__ == "__main__":
    sys.exit(main())
