# Sourced inside the guest. The real Bluetooth stack and the bookkeeping of the scenarios:
#   stack_up      modules, system bus, btmon, three emulated controllers, bluetoothd, adapters powered;
#                 sets HCI0_ADDR (the unit's adapter), HCI1_ADDR (the camera's and the scanner's) and
#                 HCI2_ADDR (another unit's)
#   stack_down    stops what stack_up started
#   step NAME PASS|FAIL|SKIP [detail]   one verdict line in $OUT/steps.txt
#   took NAME T0                         one timing line there
#   note NAME TEXT                       one observation there
OUT=/tmp/qb-e2e
PEERS=$QB_E2E_PEERS_DIR
STEPS=$OUT/steps.txt
PY=/usr/bin/python3
export PYTHONUNBUFFERED=1 PYTHONDONTWRITEBYTECODE=1
FAILED=0

# Every program started costs the emulated guest a fifth of a second or more, a python3 with dbus three
# seconds: the bookkeeping below stays within bash's builtins.
uptime_s() { local up _; read -r up _ </proc/uptime; echo "$up"; }
# since T0: seconds from the uptime T0 to now (both with two decimals, as /proc/uptime has them)
since() {
  local now _ cs
  read -r now _ </proc/uptime
  cs=$(( 10#${now/./} - 10#${1/./} ))
  printf '%d.%02d' $((cs / 100)) $((cs % 100))
}
# nap SECONDS: sleep without starting a program (a read that times out on a pipe nobody writes to; a
# fifo, as the guest without udev has no /dev/fd for bash's process substitution)
NAP_FIFO=$(mktemp -u /tmp/nap.XXXXXX)
mkfifo "$NAP_FIFO" && exec {NAP_FD}<>"$NAP_FIFO"
rm -f "$NAP_FIFO"
nap() { read -r -t "$1" -u "$NAP_FD" _ || :; }

step() {
  local line
  line="[$(uptime_s)s] $1: $2${3:+ $3}"
  echo "$line"
  echo "$line" >>"$STEPS"
  [ "$2" = PASS ] || [ "$2" = SKIP ] || FAILED=1
}

# took NAME T0: how long NAME ran since the uptime T0
took() { local line; line="[$(uptime_s)s] $1: took $(since "$2")s"; echo "$line"; echo "$line" >>"$STEPS"; }

# note NAME TEXT...: an observation without a verdict
note() { local name=$1 line; shift; line="[$(uptime_s)s] $name: $*"; echo "$line"; echo "$line" >>"$STEPS"; }

# peer NAME ARGS...: runs a peer program, its output in $OUT/NAME.log; status of the program
peer() {
  local name=$1; shift
  (cd "$PEERS" && $PY "$@") >"$OUT/$name.log" 2>&1
}

# result_of LOG: the JSON of the RESULT line a peer printed
result_of() { sed -n 's/^RESULT //p' "$1" | tail -n 1; }

# wait_for_line FILE PATTERN SECONDS: true once FILE holds a line matching PATTERN
wait_for_line() {
  local file=$1 pattern=$2 deadline=$((SECONDS + $3))
  until grep -q -- "$pattern" "$file" 2>/dev/null; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    nap 0.1
  done
}

CONTROLLERS=(hci0 hci1 hci2)

controllers_state() {
  local hci
  for hci in "${CONTROLLERS[@]}"; do
    printf '%s=%s ' "$hci" "$(timeout 2 hciconfig "$hci" 2>/dev/null | awk '/BD Address/ { print $3 }')"
  done
}
controllers_ready() {
  local hci address
  for hci in "${CONTROLLERS[@]}"; do
    address=$(timeout 2 hciconfig "$hci" 2>/dev/null | awk '/BD Address/ { print $3 }')
    [ -n "$address" ] && [ "$address" != 00:00:00:00:00:00 ] || return 1
  done
}

# On a busy host the emulator sometimes reads the kernel's first command (Reset) where it expects
# the answer to its own device request: the kernel then waits for a Reset that nobody answers, and
# the controller stays without address. Such a start is detected and retried.
start_controllers() {
  local i
  nice -n -10 btvirt -L -l${#CONTROLLERS[@]} >>"$OUT/btvirt.log" 2>&1 &
  BTVIRT_PID=$!
  local deadline=$((SECONDS + 8))
  while [ "$SECONDS" -lt "$deadline" ]; do
    controllers_ready && return 0
    nap 0.1
  done
  # what the kernel is blocked on, for the logs
  echo w >/proc/sysrq-trigger
  return 1
}

stack_up() {
  local t0
  t0=$(uptime_s)
  # the initramfs loaded them; the kernel helper of stage2.sh knows where the rest are
  [ -c /dev/vhci ] || { /run/modprobe bluetooth && /run/modprobe hci_vhci; }
  if [ -c /dev/vhci ]; then step stack.modules PASS "(bluetooth, hci_vhci)"; else step stack.modules FAIL; return 1; fi

  mkdir -p /run/dbus
  dbus-daemon --system --fork --print-pid >"$OUT/dbus.pid" 2>"$OUT/dbus.log"
  local i
  for i in $(seq 50); do [ -S /run/dbus/system_bus_socket ] && break; nap 0.1; done
  if [ -S /run/dbus/system_bus_socket ]; then step stack.dbus PASS; else step stack.dbus FAIL; return 1; fi

  # the whole HCI and mgmt traffic of both controllers, kept when the tier fails
  stdbuf -oL btmon -T >"$OUT/btmon.txt" 2>&1 &
  BTMON_PID=$!
  nap 0.3

  # -L: controllers with the 4.x LE command set. With 5.x controllers the kernel scans with extended
  # scanning, and the emulator never reports legacy advertising (which is what hcitool sends) to it.
  local attempt
  for attempt in 1 2 3; do
    start_controllers && break
    echo "stack: controllers not initialised (attempt $attempt): $(controllers_state)"
    dmesg >"$OUT/dmesg-attempt$attempt.txt" 2>&1
    kill "$BTVIRT_PID" 2>/dev/null
    wait "$BTVIRT_PID" 2>/dev/null
    # the kernel lets go of a stuck controller only when its Reset has timed out
    for i in $(seq 200); do compgen -G "/sys/class/bluetooth/hci*" >/dev/null || break; nap 0.1; done
  done
  if [ "$attempt" = 3 ] && ! controllers_ready; then
    step stack.controllers FAIL "($(controllers_state))"
    return 1
  fi
  step stack.controllers PASS "(attempt $attempt: $(controllers_state))"

  /usr/libexec/bluetooth/bluetoothd -n -d >"$OUT/bluetoothd.log" 2>&1 &
  BLUETOOTHD_PID=$!
  if peer wait_adapters wait_adapters.py "${CONTROLLERS[@]}"; then
    step stack.bluetoothd PASS "$(result_of "$OUT/wait_adapters.log")"
  else
    step stack.bluetoothd FAIL "($(tail -n 2 "$OUT/wait_adapters.log" | tr '\n' ' '))"
    return 1
  fi
  HCI0_ADDR=$(hciconfig hci0 | awk '/BD Address/ { print $3 }')
  HCI1_ADDR=$(hciconfig hci1 | awk '/BD Address/ { print $3 }')
  HCI2_ADDR=$(hciconfig hci2 | awk '/BD Address/ { print $3 }')
  export HCI0_ADDR HCI1_ADDR HCI2_ADDR
  { hciconfig -a; btmgmt info; } >"$OUT/controllers.txt" 2>&1
  echo "stack: up in $(since "$t0")s: hci0=$HCI0_ADDR hci1=$HCI1_ADDR hci2=$HCI2_ADDR"
}

stack_down() {
  dmesg >"$OUT/dmesg.txt" 2>&1
  lsmod >"$OUT/lsmod.txt" 2>&1
  [ -n "${BLUETOOTHD_PID:-}" ] && kill "$BLUETOOTHD_PID" 2>/dev/null && nap 0.3
  [ -n "${BTVIRT_PID:-}" ] && kill "$BTVIRT_PID" 2>/dev/null && nap 0.2
  [ -n "${BTMON_PID:-}" ] && kill "$BTMON_PID" 2>/dev/null
  [ -s "$OUT/dbus.pid" ] && kill "$(cat "$OUT/dbus.pid")" 2>/dev/null
  return 0
}
