#!/usr/bin/env bash
# Lists the tests of the last ctest run that were skipped, each with the
# reason it gave: ctest names skipped tests but keeps their reasons in its log.
#   scripts/test-skips.sh [BUILD_DIR]
log="${1:-build}/Testing/Temporary/LastTest.log"
[ -f "$log" ] || exit 0
awk '
  /^\[ RUN      \] / { test = $4; next }
  test != "" && /: Skipped$/ { taking = 1; reason = ""; next }
  taking && /^\[  SKIPPED \] / {
    if (!(test in seen)) {
      seen[test] = 1
      if (count++ == 0) print "\nSkipped tests, with their reasons:"
      print "  " test ": " (reason == "" ? "(no reason given)" : reason)
    }
    taking = 0
    next
  }
  taking && NF { reason = reason (reason == "" ? "" : "; ") $0 }
' "$log"
