#!/bin/sh
# Runs a Windows program under wine64 with its exit status: CTest's emulator for the Windows
# build. The wine prefix (wine's "C:" drive and registry) lives in SIGNDB_WINEPREFIX, by default
# beside the build's cache; scripts/windows.sh makes it once before the tests run in parallel.
export WINEPREFIX="${SIGNDB_WINEPREFIX:-${TMPDIR:-/tmp}/signdb-wine-$(id -u)}"
export WINEDEBUG="${WINEDEBUG:--all}"
# No Mono or Gecko: nothing here is .NET or HTML, and wine would offer to download them.
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"
exec /usr/lib/wine/wine64 "$@"
