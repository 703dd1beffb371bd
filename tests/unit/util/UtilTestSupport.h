// Helpers of the util tests: the shared scratch-file helpers and a fake configuration reader.
#pragma once

#include <string>

#include "unit/support/Files.h"

namespace testutil {

using namespace testsupport;

// Stand-in for <root>/sbin/yarrow: "[-f FILE] [-d DEFAULT] SECTION KEY" prints the value of the
// line "SECTION/KEY=value" of FILE, else DEFAULT, and appends its arguments to yarrow.calls.
inline bool installFakeReader(const std::string& root) {
    makeDirs(root + "/sbin");
    return writeFile(root + "/sbin/yarrow", R"(#!/bin/sh
echo "$*" >> "$0.calls"
conf= def=
while [ $# -gt 2 ]; do
  case "$1" in -f) conf=$2; shift 2;; -d) def=$2; shift 2;; *) break;; esac
done
v=$(grep -F "$1/$2=" "$conf" 2>/dev/null | head -n 1)
if [ -n "$v" ]; then echo "${v#*=}"; elif [ -n "$def" ]; then echo "$def"; fi
)",
                     0755);
}

}  // namespace testutil
