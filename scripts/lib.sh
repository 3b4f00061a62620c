# Functions that the scripts and the end-to-end tests share; sourced by bash, never run.
#
# What is started here (Wine server, X server) is written down with its process id and stopped by stopServices,
# which startServices hangs on the shell's exit. Processes of others are never touched.

veltraRoot=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export WINEPREFIX=${VELTRA_WINEPREFIX:-$veltraRoot/build/wine}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"

wineServerPid=
xServerPid=

say() { printf '%s\n' "$*"; }
fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# Put before a start of Wine, which maps a page at a fixed address. Where the randomisation of addresses has put
# something else there, once in some thousand starts, Wine ends at once with status 1. Empty where the system does not
# let the randomisation be turned off.
fixedAddresses=()
! setarch -R true 2>/dev/null || fixedAddresses=(setarch -R)

# The 64-bit Wine loader. Debian's front end /usr/bin/wine asks for the 32-bit one, which nothing here needs.
wineLoader() {
    local candidate
    for candidate in /usr/lib/wine/wine64 "$(command -v wine64 || true)" "$(command -v wine || true)"; do
        if [ -x "$candidate" ]; then
            printf '%s\n' "$candidate"
            return
        fi
    done
    fail "Wine is not installed (Debian package wine64)"
}

wineServer() {
    local candidate
    for candidate in /usr/lib/wine/wineserver "$(command -v wineserver || true)"; do
        if [ -x "$candidate" ]; then
            printf '%s\n' "$candidate"
            return
        fi
    done
    fail "Wine's server is not installed (Debian package libwine)"
}

# Installs the Debian packages among the arguments that are missing. The package lists are fetched only then.
needPackages() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    [ "$(id -u)" -eq 0 ] || fail "these packages are missing, install them as root: ${missing[*]}"
    say "Installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    { apt-get -qq update && apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null; } ||
        fail "apt-get could not install: ${missing[*]}"
}

# Packages that a build of the Windows programs needs, that their 32-bit build adds, those to make the installer, and
# those to run the programs.
buildPackages=(cmake ninja-build g++-mingw-w64-x86-64-posix libcli11-dev nlohmann-json3-dev
    libgcrypt-mingw-w64-dev googletest)
buildX86Packages=(g++-mingw-w64-i686-posix)
packagingPackages=(wixl msitools jq uuid-runtime git)
runPackages=(wine64 openssl)
displayPackages=(xvfb xauth xdotool imagemagick fonts-liberation fonts-wine)
testPackages=(clang-format g++ wine64-tools libwine-dev curl ca-certificates python3)
fuzzPackages=(clang-14 libclang-rt-14-dev)

# buildPreset PRESET [TARGET...]: configures where needed and builds, all targets by default.
buildPreset() {
    local preset=$1
    shift
    mkdir -p "$veltraRoot/build"
    # What an older version of the build files left behind may not configure any more: then it is begun anew.
    (cd "$veltraRoot" && { cmake --preset "$preset" || cmake --preset "$preset" --fresh; } \
        >"$veltraRoot/build/configure-$preset.log" 2>&1) || {
        cat "$veltraRoot/build/configure-$preset.log" >&2
        fail "could not configure the preset $preset"
    }
    cmake --build "$veltraRoot/build/$preset" -j "$(nproc)" ${1:+--target "$@"}
}

# Makes the private Wine prefix if it is missing; safe to call from several processes at once. A prefix whose
# making was interrupted lacks the mark and is made again.
makeWinePrefix() {
    local mark=$WINEPREFIX/.veltra-ready
    [ -e "$mark" ] && return
    mkdir -p "$WINEPREFIX"
    (
        flock 9
        [ -e "$mark" ] && exit 0
        log=$WINEPREFIX/veltra-prefix.log
        loader=$(wineLoader)
        # Without a window manager a managed window takes seconds to close.
        "$loader" wineboot -i >"$log" 2>&1 9>&- &&
            "$loader" reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /d N /f >>"$log" 2>&1 9>&- &&
            touch "$mark" || {
            cat "$log" >&2
            fail "could not make the Wine prefix $WINEPREFIX"
        }
    ) 9>"$WINEPREFIX.lock"
}

# Starts Wine's services. They keep the output of the program that starts them open, so that whoever reads that
# program's output would wait for them as well: a program without output has to be the first.
bootWine() { "${fixedAddresses[@]}" "$(wineLoader)" cmd /c exit </dev/null >/dev/null 2>&1; }

# Boots Wine if it does not run, for as long as it is used and a minute more.
ensureWineRuns() {
    "$(wineServer)" -p60 </dev/null >/dev/null 2>&1 || return 0 # a server runs already
    bootWine
}

# Keeps the prefix's Wine server alive between programs: a start then takes 50 ms instead of seconds.
# A server that is just ending, or that somebody else keeps, does not let a second one start.
startWineServer() {
    mkdir -p "$WINEPREFIX"
    for _ in $(seq 10); do
        "$(wineServer)" -f -p </dev/null >/dev/null 2>&1 &
        wineServerPid=$!
        sleep 0.5
        kill -0 "$wineServerPid" 2>/dev/null && return
    done
    wineServerPid=
}

# Starts an X server without a screen on a free display and exports DISPLAY.
startDisplay() {
    local numberFile number=
    numberFile=$(mktemp)
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$numberFile" >/dev/null 2>&1 &
    xServerPid=$!
    for _ in $(seq 100); do
        number=$(tr -d '\n' <"$numberFile")
        [ -n "$number" ] && break
        kill -0 "$xServerPid" 2>/dev/null || break
        sleep 0.1
    done
    rm -f "$numberFile"
    [ -n "$number" ] || fail "Xvfb did not start"
    export DISPLAY=:$number
}

# Stops what this shell started. Wine's server ends its programs only when it is asked to in its own way; after
# a plain signal they would stay behind.
stopServices() {
    if [ -n "$wineServerPid" ] && kill -0 "$wineServerPid" 2>/dev/null; then
        "$(wineServer)" -k 2>/dev/null || true
        wait "$wineServerPid" 2>/dev/null || true
    fi
    wineServerPid=
    if [ -n "$xServerPid" ] && kill "$xServerPid" 2>/dev/null; then
        wait "$xServerPid" 2>/dev/null || true
    fi
    xServerPid=
}

# startServices [--display]: Wine server and prefix, and an X server if asked for, until the shell exits.
startServices() {
    trap stopServices EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    [ "${1:-}" != --display ] || startDisplay
    startWineServer
    makeWinePrefix
    bootWine
}

# The prefixes that tests share out among themselves (tests/support/in-own-prefix): one for each processor.
testPrefixes() { seq -f "$WINEPREFIX-%g" "$(nproc)"; }

# Ends the Wine servers of those prefixes, which would wait a minute for another program.
stopTestPrefixes() {
    local prefix
    while read -r prefix; do
        [ ! -d "$prefix" ] || WINEPREFIX=$prefix "$(wineServer)" -k 2>/dev/null || true
    done < <(testPrefixes)
}

# The path that a Windows program has to use for a file of this machine.
windowsPath() {
    local path
    path=$(realpath -m "$1")
    printf 'Z:%s\n' "${path//\//\\}"
}

# Runs a Windows program: `runWindows PROGRAM ARGUMENTS...`.
runWindows() { "$veltraRoot/scripts/wine-run" "$@"; }

# runWindowsTypingPin PIN PICTURE PROGRAM ARGUMENTS...: runs a program that shows the provider's password dialog on
# the display, types the PIN into it and leaves a picture of it in the file PICTURE. The program is ended after two
# minutes: a second dialog would have nobody to answer it.
runWindowsTypingPin() {
    local pin=$1 picture=$2 window='' program status=0
    shift 2
    exec timeout 120 "$veltraRoot/scripts/wine-run" "$@" &
    program=$!
    for _ in $(seq 150); do
        window=$(xdotool search --onlyvisible --name '^Verify User Password$' 2>/dev/null | head -n 1 || true)
        [ -n "$window" ] && break
        kill -0 "$program" 2>/dev/null || break
        sleep 0.2
    done
    if [ -z "$window" ]; then
        kill "$program" 2>/dev/null || true
        fail "the password dialog did not appear"
    fi
    sleep 0.5
    xdotool type --delay 30 "$pin"
    sleep 0.3
    import -window "$window" "$picture"
    xdotool key Return
    wait "$program" || status=$?
    [ "$status" -ne 124 ] || fail "the program did not end in time"
    return "$status"
}
