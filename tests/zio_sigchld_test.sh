#!/usr/bin/env bash
# The whole suite of enclave operations in a process that ignores SIGCHLD from its start, as many daemons do: no child's
# status may be lost.
exec env --ignore-signal=CHLD "$1/tests/zio_test" --gtest_brief=1
