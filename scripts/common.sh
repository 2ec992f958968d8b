# Shared by the build, test, demo and benchmark scripts. Source it; do not run it.
ZUN_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
ZUN_BUILD=${ZUN_BUILD:-$ZUN_ROOT/build}
export ZUN_BUILD
export WINEPREFIX=$ZUN_BUILD/wineprefix
export WINEDEBUG=-all
export WINEDLLOVERRIDES=mscoree,mshtml=

zun_build() {
    "$ZUN_ROOT/scripts/setup"
    if [ ! -f "$ZUN_BUILD/build.ninja" ]; then
        cmake -S "$ZUN_ROOT" -B "$ZUN_BUILD" -G Ninja \
            -DCMAKE_BUILD_TYPE=${ZUN_BUILD_TYPE:-Release} \
            -DCMAKE_TOOLCHAIN_FILE="$ZUN_ROOT/cmake/mingw64.toolchain.cmake"
    fi
    cmake --build "$ZUN_BUILD"
}

# Windows need a display even when nobody looks at them (hidden signal windows, dialogs): without
# one, Wine refuses to create any window. When there is no display, start a private Xvfb for the
# duration; -displayfd lets it pick a free display number itself.
zun_display_start() {
    [ -n "${DISPLAY:-}" ] && return 0
    command -v Xvfb >/dev/null || return 0
    local fd_file
    fd_file=$(mktemp)
    Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$fd_file" >/dev/null 2>&1 &
    ZUN_XVFB_PID=$!
    for _ in $(seq 100); do
        [ -s "$fd_file" ] && break
        sleep 0.05
    done
    if [ -s "$fd_file" ]; then
        export DISPLAY=":$(head -n1 "$fd_file")"
    else
        kill "$ZUN_XVFB_PID" 2>/dev/null || true
        ZUN_XVFB_PID=
    fi
    rm -f "$fd_file"
}

zun_display_stop() {
    if [ -n "${ZUN_XVFB_PID:-}" ]; then
        kill "$ZUN_XVFB_PID" 2>/dev/null || true
        wait "$ZUN_XVFB_PID" 2>/dev/null || true
        ZUN_XVFB_PID=
    fi
}

# Creates the private prefix once and keeps one wineserver up until zun_wine_stop: with a
# persistent server a Windows process starts in about 0.15 s instead of 2.5 s.
zun_wine_start() {
    zun_display_start
    if [ ! -f "$WINEPREFIX/system.reg" ]; then
        echo "wine: creating prefix $WINEPREFIX"
        wineboot -i >/dev/null 2>&1 || true
        wineserver -w
    fi
    # -p fails when a server of this prefix is still up (it may be on its way out): replace it.
    if ! wineserver -p 2>/dev/null; then
        zun_wine_stop
        wineserver -p
    fi
    # Start Wine's resident processes (services, device host, desktop) now, with no pipes of
    # ours: a resident process that inherited a test's output pipe would keep CTest waiting.
    wine cmd /c exit </dev/null >/dev/null 2>&1
    # A crashing test program must end, not wait in Wine's debugger until CTest's time-out.
    wine reg delete 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /f \
        </dev/null >/dev/null 2>&1 || true
    trap zun_wine_stop EXIT
}

zun_wine_stop() {
    wineserver -k 2>/dev/null || true
    wineserver -w 2>/dev/null || true
    zun_display_stop
}
