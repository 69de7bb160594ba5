#!/usr/bin/env bash
# ./run demo [--screenshot FILE]: Vireo against a sample device.
#
#   tools/demo.sh BUILD_DIR [--screenshot FILE]
#
# Makes a sample device in a temporary folder (kept between runs, made once), starts handlinkd
# with it on a private socket, starts Vireo pointed at that socket and stops the daemon when
# Vireo quits. With --screenshot FILE it saves a picture of the main window once the device is
# shown, and quits.
set -euo pipefail

die() { echo "demo: $*" >&2; exit 1; }

[ $# -ge 1 ] || die "usage: tools/demo.sh BUILD_DIR [--screenshot FILE]"
BUILD_DIR=$(cd "$1" && pwd) || die "no build folder $1"
shift
SCREENSHOT=""
while [ $# -gt 0 ]; do
  case "$1" in
    --screenshot)
      [ $# -ge 2 ] || die "--screenshot needs a file name"
      SCREENSHOT=$2; shift 2 ;;
    -h|--help)
      echo "usage: ./run demo [--screenshot FILE]"; exit 0 ;;
    *) die "unknown option: $1 (usage: ./run demo [--screenshot FILE])" ;;
  esac
done

BIN=$BUILD_DIR/bin
for tool in vireo handlinkd handlinkctl; do
  [ -x "$BIN/$tool" ] || die "$BIN/$tool is missing; build first (./run build)"
done
if [ -n "$SCREENSHOT" ]; then
  [ -x "$BIN/vireo-screenshot" ] || die "$BIN/vireo-screenshot is missing; build first (./run build)"
  case "$SCREENSHOT" in /*) ;; *) SCREENSHOT=$PWD/$SCREENSHOT ;; esac
fi

# A window needs a display. A screenshot can do without one (drawn offscreen). Qt's offscreen
# and minimal platforms need none; the others (xcb, wayland, or Qt's own choice) need a display
# that is named and, when it is local, has its socket.
x_reachable() {
  [ -n "${DISPLAY:-}" ] || return 1
  case "$DISPLAY" in
    :*|unix:*) local n=${DISPLAY#*:}; [ -S "/tmp/.X11-unix/X${n%%.*}" ] ;;
    *) return 0 ;;  # a remote display: let Qt try
  esac
}
wayland_reachable() {
  [ -n "${WAYLAND_DISPLAY:-}" ] || return 1
  case "$WAYLAND_DISPLAY" in
    /*) [ -S "$WAYLAND_DISPLAY" ] ;;
    *) [ -S "${XDG_RUNTIME_DIR:-/nonexistent}/$WAYLAND_DISPLAY" ] ;;
  esac
}
QPA=${QT_QPA_PLATFORM:-}
case "${QPA%%:*}" in
  offscreen|minimal) HAVE_DISPLAY=yes ;;
  xcb) x_reachable && HAVE_DISPLAY=yes || HAVE_DISPLAY="" ;;
  wayland*) wayland_reachable && HAVE_DISPLAY=yes || HAVE_DISPLAY="" ;;
  *) { x_reachable || wayland_reachable; } && HAVE_DISPLAY=yes || HAVE_DISPLAY="" ;;
esac
if [ -z "$HAVE_DISPLAY" ]; then
  if [ -z "$SCREENSHOT" ]; then
    cat >&2 <<MSG
demo: no display can be reached (DISPLAY=${DISPLAY:-unset}, WAYLAND_DISPLAY=${WAYLAND_DISPLAY:-unset}${QPA:+, QT_QPA_PLATFORM=$QPA}),
so Vireo's window cannot be shown. Run the demo on a desktop, or under a virtual X server:

    xvfb-run -a ./run demo --screenshot vireo.png     # then look at vireo.png

MSG
    exit 2
  fi
  echo "demo: no display; drawing the screenshot offscreen" >&2
  export QT_QPA_PLATFORM=offscreen
fi

DEMO_ROOT=${TMPDIR:-/tmp}/vireo-demo-$(id -u)
DEVICE=$DEMO_ROOT/device
mkdir -p "$DEMO_ROOT"
chmod 700 "$DEMO_ROOT"
if [ ! -f "$DEVICE/device.plist" ]; then
  echo "demo: making a sample device in $DEVICE" >&2
  rm -rf "$DEVICE"
  "$BIN/handlinkctl" make-device "$DEVICE" --name "Demo Tamber" --sample small >/dev/null \
    || { rm -rf "$DEVICE"; die "could not make the sample device in $DEVICE (handlinkctl said why above)"; }
fi

RUN_DIR=$(mktemp -d "$DEMO_ROOT/run.XXXXXX")
export HANDLINK_SOCKET=$RUN_DIR/handlinkd.sock
DAEMON_PID=""
cleanup() {
  if [ -n "$DAEMON_PID" ] && kill -0 "$DAEMON_PID" 2>/dev/null; then
    kill "$DAEMON_PID" 2>/dev/null || true
    wait "$DAEMON_PID" 2>/dev/null || true
  fi
  rm -rf "$RUN_DIR"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

"$BIN/handlinkd" --socket "$HANDLINK_SOCKET" --device "$DEVICE" >"$RUN_DIR/handlinkd.log" 2>&1 &
DAEMON_PID=$!
for _ in $(seq 1 100); do
  [ -S "$HANDLINK_SOCKET" ] && break
  kill -0 "$DAEMON_PID" 2>/dev/null || { cat "$RUN_DIR/handlinkd.log" >&2; die "handlinkd did not start"; }
  sleep 0.1
done
[ -S "$HANDLINK_SOCKET" ] || die "handlinkd did not open $HANDLINK_SOCKET"
echo "demo: handlinkd (pid $DAEMON_PID) serves $DEVICE on $HANDLINK_SOCKET" >&2

if [ -n "$SCREENSHOT" ]; then
  # A private defaults file keeps the picture independent of the user's choices.
  "$BIN/vireo-screenshot" "$SCREENSHOT" --defaults "$RUN_DIR/defaults.ini"
else
  echo "demo: starting Vireo; quit it to stop the daemon" >&2
  "$BIN/vireo"
fi
