#!/bin/bash
# The end-to-end scenarios, run inside the guest by stage2.sh, all on one boot. hci0 is the unit's
# adapter, driven by the project's code through the drivers built on the host; hci1 belongs to the
# peers (a BlueZ scanner, a remote camera), hci2 to another unit. Verdicts go to $OUT/steps.txt, the
# overall one to $OUT/result (PASS or FAIL).
. "$QB_E2E_GUEST_DIR/stack.sh"
. "$QB_E2E_GUEST_DIR/daemon.sh"
: >"$STEPS"
echo "scenarios: start at $(uptime_s)s"

SERIAL=QBE2E0042
IDENTITY=/tmp/identity
printf 'serial=%s\nmodel=Cobalt\nradio_type=1\n' "$SERIAL" >"$IDENTITY"
export VANTU_IDENTITY_FILE=$IDENTITY

wanted() { [ "$QB_E2E_SCENARIOS" = all ] || [[ ",$QB_E2E_SCENARIOS," == *",$1,"* ]]; }

# ---- smoke: the stack itself -------------------------------------------------------------------
scenario_smoke() {
  local t0 ok=PASS hci
  t0=$(uptime_s)
  dbus-send --system --print-reply --dest=org.bluez / org.freedesktop.DBus.ObjectManager.GetManagedObjects \
    >"$OUT/smoke-objects.txt" 2>&1 || ok=FAIL
  for hci in "${CONTROLLERS[@]}"; do
    [ -e "/sys/class/bluetooth/$hci" ] || ok=FAIL
    hciconfig "$hci" | grep -q 'UP RUNNING' || ok=FAIL
    grep -q "/org/bluez/$hci" "$OUT/smoke-objects.txt" || ok=FAIL
  done
  step scenario.smoke "$ok" "(sysfs ${CONTROLLERS[*]}, each UP RUNNING and listed by org.bluez; $(since "$t0")s)"
}

# ---- 1: advertising on air ---------------------------------------------------------------------
# The real HCIToolAdvertiser start sequence (real hcitool and hciconfig) on hci0 with a V3 payload;
# a BlueZ scan on hci1 must see the serial number as local name and, under company 0x05F3, exactly
# the bytes that Serialise() produced; after StopAdvertising() the unit must be off the air.
scenario_advertise() {
  local driver=${QB_E2E_DRIVER_advertise:-} t0 line status payload name data
  if [ -z "$driver" ]; then step scenario.advertise SKIP "(driver not built)"; return; fi
  t0=$(uptime_s)
  local ctl=/tmp/advertise.ctl log=$OUT/advertise-driver.log
  mkfifo "$ctl"
  timeout 90 "$driver" <"$ctl" >"$log" 2>&1 &
  local pid=$!
  exec 7>"$ctl"
  if ! wait_for_line "$log" '^STARTED ' 30; then
    step advertise.start FAIL "(no STARTED line; $(tail -n 2 "$log" | tr '\n' ' '))"
    exec 7>&-; wait "$pid"; return
  fi
  line=$(grep '^STARTED ' "$log")
  status=$(sed -n 's/.* status=\([^ ]*\).*/\1/p' <<<"$line")
  payload=$(sed -n 's/.* payload=\([0-9a-f]*\).*/\1/p' <<<"$line")
  name=$(sed -n 's/.* name=\([^ ]*\).*/\1/p' <<<"$line")
  if [ "$status" = 0 ] && [[ "$line" == *" advertising=1 configured=1"* ]]; then
    step advertise.start PASS "($line)"
  else
    step advertise.start FAIL "($line)"
  fi
  [ "$name" = "$SERIAL" ] || step advertise.identity FAIL "(driver used name '$name', identity says '$SERIAL')"
  # the payload begins with the company identifier, little-endian; BlueZ keys the rest by it
  if [ "${payload:0:4}" = f305 ]; then data=${payload:4}; else
    step advertise.payload FAIL "(payload $payload does not start with f305)"; data=$payload
  fi
  if peer advertise-scan-on air_scan.py --adapter hci1 --address "$HCI0_ADDR" --expect present \
      --name "$SERIAL" --company 0x05F3 --data "$data" --timeout 25 --forget; then
    step advertise.seen_on_air PASS "$(result_of "$OUT/advertise-scan-on.log")"
  else
    step advertise.seen_on_air FAIL "$(result_of "$OUT/advertise-scan-on.log")"
  fi
  if peer advertise-hci-on hci_trace.py --trace "$OUT/btmon.txt" --controller hci0 --expect-advertising on; then
    step advertise.controller_accepted PASS "$(result_of "$OUT/advertise-hci-on.log")"
  else
    step advertise.controller_accepted FAIL "$(result_of "$OUT/advertise-hci-on.log")"
  fi

  echo stop >&7
  exec 7>&-
  wait_for_line "$log" '^STOPPED ' 10
  wait "$pid"
  local rc=$?
  line=$(grep '^STOPPED ' "$log")
  if [ "$rc" = 0 ] && [[ "$line" == "STOPPED status=0 advertising=0 configured=1"* ]]; then
    step advertise.stop PASS "($line)"
  else
    step advertise.stop FAIL "(exit $rc; ${line:-no STOPPED line})"
  fi
  if peer advertise-hci-off hci_trace.py --trace "$OUT/btmon.txt" --controller hci0 --expect-advertising off; then
    step advertise.controller_stopped PASS "$(result_of "$OUT/advertise-hci-off.log")"
  else
    step advertise.controller_stopped FAIL "$(result_of "$OUT/advertise-hci-off.log")"
  fi
  if peer advertise-scan-off air_scan.py --adapter hci1 --address "$HCI0_ADDR" --expect absent \
      --timeout 7 --forget; then
    step advertise.gone_from_air PASS "$(result_of "$OUT/advertise-scan-off.log")"
  else
    step advertise.gone_from_air FAIL "$(result_of "$OUT/advertise-scan-off.log")"
  fi
  took scenario.advertise "$t0"
}

# ---- the remote camera on hci1, shared by scenarios 2 and 3 ------------------------------------
CAMERA_PID=
# camera_up [SSID]: the camera advertising SSID as its payload text (default its own)
camera_up() {
  [ -n "$CAMERA_PID" ] && return 0
  (cd "$PEERS" && exec $PY camera_peripheral.py --adapter hci1 --transcript "$OUT/camera-transcript.jsonl" \
     ${1:+--ssid "$1"}) \
    >"$OUT/camera-peripheral.log" 2>&1 &
  CAMERA_PID=$!
  if wait_for_line "$OUT/camera-peripheral.log" 'READY camera' 60; then
    step camera.peripheral_up PASS "($(grep -o 'READY camera.*' "$OUT/camera-peripheral.log"))"
  else
    step camera.peripheral_up FAIL "($(tail -n 3 "$OUT/camera-peripheral.log" | tr '\n' ' '))"
    return 1
  fi
}
camera_down() {
  [ -n "$CAMERA_PID" ] || return 0
  kill "$CAMERA_PID" 2>/dev/null
  wait "$CAMERA_PID" 2>/dev/null
  CAMERA_PID=
}

# ---- 2: scanning through real BlueZ ------------------------------------------------------------
scenario_scan() {
  local driver=${QB_E2E_DRIVER_scan:-} t0
  if [ -z "$driver" ]; then step scenario.scan SKIP "(driver not built)"; return; fi
  t0=$(uptime_s)
  camera_up || return
  if timeout 60 "$driver" --camera "$HCI1_ADDR" >"$OUT/scan-driver.log" 2>&1; then
    step scan.remote_camera_found PASS "$(result_of "$OUT/scan-driver.log")"
  else
    step scan.remote_camera_found FAIL "$(result_of "$OUT/scan-driver.log")"
  fi
  took scenario.scan "$t0"
}

# bluez_property PATH INTERFACE NAME: a property as BlueZ itself reports it ("boolean true", ...)
bluez_property() {
  dbus-send --system --print-reply --dest=org.bluez "$1" org.freedesktop.DBus.Properties.Get \
    "string:$2" "string:$3" 2>&1 | sed -n 's/.*variant *//p'
}

# ---- 3: the remote camera over real GATT -------------------------------------------------------
scenario_camera() {
  local driver=${QB_E2E_DRIVER_camera:-} t0
  if [ -z "$driver" ]; then step scenario.camera SKIP "(driver not built)"; return; fi
  t0=$(uptime_s)
  camera_up || return
  local device=/org/bluez/hci0/dev_${HCI1_ADDR//:/_} monitor
  # what BlueZ signals about the camera on the unit's side, as every client library sees it
  dbus-monitor --system "type='signal',sender='org.bluez',path='$device'" >"$OUT/camera-signals.log" 2>&1 &
  monitor=$!
  if timeout 90 "$driver" --camera "$HCI1_ADDR" >"$OUT/camera-driver.log" 2>&1; then
    step camera.configured PASS "$(result_of "$OUT/camera-driver.log")"
  else
    step camera.configured FAIL "$(result_of "$OUT/camera-driver.log")"
    # BlueZ's own view of the link, next to what the driver saw through its client library
    note camera.bluez_view "Connected=$(bluez_property "$device" org.bluez.Device1 Connected)" \
      "ServicesResolved=$(bluez_property "$device" org.bluez.Device1 ServicesResolved)" \
      "PropertiesChanged(Connected) signalled: $(grep -c 'string "Connected"' "$OUT/camera-signals.log") times"
  fi
  kill "$monitor" 2>/dev/null
  # what the camera itself received, in order
  local writes
  writes=$(sed -n 's/.*"event": "write".*"text": "\([^"]*\)".*/\1/p' "$OUT/camera-transcript.jsonl" | tr '\n' ' ')
  if [ "$writes" = 'RV\r RF\r RP\r WPZ\r WF5.0G\r ' ]; then
    step camera.commands_on_air PASS "($writes)"
  else
    step camera.commands_on_air FAIL "(camera received: ${writes:-nothing})"
  fi
  took scenario.camera "$t0"
}

# adapter_switch NAME: a switch of hci0 as BlueZ itself reports it, "true" or "false"
adapter_switch() { bluez_property /org/bluez/hci0 org.bluez.Adapter1 "$1" | sed -n 's/^boolean *//p'; }

# ---- the radio's switches on the real adapter --------------------------------------------------
# Each switch of TinybRadio is turned to the other state and back; BlueZ must report each state.
scenario_radio() {
  local driver=${QB_E2E_DRIVER_radio:-} t0 sw orig value seen
  if [ -z "$driver" ]; then step scenario.radio SKIP "(driver not built)"; return; fi
  t0=$(uptime_s)
  for sw in Pairable Discoverable Powered; do
    orig=$(adapter_switch "$sw")
    if [ "$orig" != true ] && [ "$orig" != false ]; then
      step "radio.$sw" FAIL "(BlueZ reports '$orig')"; continue
    fi
    for value in $([ "$orig" = true ] && echo "0 1" || echo "1 0"); do
      local log=$OUT/radio-$sw-$value.log
      timeout 30 "$driver" "$sw" "$value" >"$log" 2>&1
      local rc=$?
      seen=$(adapter_switch "$sw")
      if [ "$rc" = 0 ] && [ "$seen" = "$([ "$value" = 1 ] && echo true || echo false)" ]; then
        step "radio.$sw=$value" PASS "(BlueZ: $seen) $(result_of "$log")"
      else
        step "radio.$sw=$value" FAIL "(exit $rc, BlueZ: $seen) $(result_of "$log") $(tail -n 3 "$log" | tr '\n' ' ')"
      fi
    done
  done
  took scenario.radio "$t0"
}

if stack_up; then
  # an ad-hoc investigation instead of the scenarios (QB_E2E_SCRIPT on the host)
  if [ -n "${QB_E2E_SCRIPT:-}" ]; then . "$QB_E2E_SCRIPT"; QB_E2E_SCENARIOS=none; fi
  wanted smoke && scenario_smoke
  wanted advertise && scenario_advertise
  wanted scan && scenario_scan
  wanted camera && scenario_camera
  camera_down
  # last: powering the unit's adapter off and on would disturb the others
  wanted radio && scenario_radio
  # the whole daemon through its D-Bus API, on the stack the scenarios above left as they found it
  wanted daemon && scenario_daemon
fi
stack_down
echo "scenarios: end at $(uptime_s)s"
if [ "$FAILED" = 0 ]; then echo PASS >"$OUT/result"; else echo FAIL >"$OUT/result"; fi
exit "$FAILED"
