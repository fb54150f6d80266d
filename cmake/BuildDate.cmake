# Writes the build date of the version line to OUT, in the form of the
# compiler's __DATE__ ("May  5 2025", "Nov 25 2026"): from
# SOURCE_DATE_EPOCH (in UTC) when it is set, so that a package build gives the
# same bytes every time, else the local time of the build. OUT is touched
# only when its text changes, so a build on the same day recompiles nothing.
#   cmake -DOUT=file -P BuildDate.cmake
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(utc UTC)
endif()
string(TIMESTAMP date "%b %d %Y" ${utc})
# A day of one digit is padded with a blank, not a zero.
string(REGEX REPLACE "^([A-Z][a-z][a-z]) 0" "\\1  " date "${date}")
file(CONFIGURE OUTPUT "${OUT}" CONTENT [[
#pragma once
#define KIVREG_BUILD_DATE "@date@"
]] @ONLY)
