# The device that scripts/demo shows: functions only. Sourced, not run.
# shellcheck shell=bash

handover_key=db/zol/send_zol_files_path

# Waits for a command to succeed, at most 30 seconds.
await() {
    local what=$1 end=$((SECONDS + 30))
    shift
    until "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $end ] || die "waited in vain for $what"
        sleep 0.02
    done
}

# Shows a command, then runs it.
show() {
    printf '%s$%s%s\n' "$bold" "$(printf ' %q' "$@")" "$plain"
    "$@"
}

# Else the first client would start it, and it would outlive the demo by ten seconds.
start_store() {
    zol_vconfd &
    store_pid=$!
    await "the key store" test -S "$ZOL_ROOT/run/zol/vconf.sock"
}

make_device() {
    mkdir -p "$ZOL_ROOT"/{etc,proc,tmp,run,dev,usr/bin,var/lib,var/log,home/.local/share/applications}
    printf '11111111-2222-3333-4444-555555555555' >"$ZOL_ROOT/proc/global_uniqueID"
    printf '0123456789' >"$ZOL_ROOT/proc/life_cycleID"
    export HOME="$ZOL_ROOT/home" XDG_DATA_HOME="$ZOL_ROOT/home/.local/share" XDG_DATA_DIRS="$ZOL_ROOT/usr/share"
    zolctl vconf set db/comss/hwduid DEMO123456789 --type string
}

start_bus() {
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$ZOL_ROOT/bus"
    cat >"$ZOL_ROOT/bus.conf" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type><listen>$DBUS_SYSTEM_BUS_ADDRESS</listen><auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
    dbus-daemon --config-file="$ZOL_ROOT/bus.conf" --nofork --nopidfile --nosyslog 2>"$ZOL_ROOT/bus.log" &
    bus_pid=$!
    await "the bus" test -S "$ZOL_ROOT/bus"
}

start_daemon() {
    zol_daemon >/dev/null 2>&1 </dev/null &
    daemon_pid=$!
}

on_bus() {
    gdbus call --address "$DBUS_SYSTEM_BUS_ADDRESS" --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
        --method org.freedesktop.DBus.NameHasOwner "$1" | grep -q true
}
daemon_serves() { on_bus org.zol.Daemon1; }

# True when the hand-over key holds a path.
path_published() { [ -n "$(zolctl vconf get "$handover_key" 2>/dev/null)" ]; }

# What a collector does: takes the published folder, here to show it, and empties the key.
show_report() {
    local folder
    await "a published report" path_published
    folder=$(zolctl vconf get "$handover_key")
    printf 'published in %s: %s\n' "$handover_key" "$folder"
    show cat "$ZOL_ROOT$folder/header.json"
    printf '\n'
    zolctl kpi list | tail -1 | cut -c1-200
    show zolctl vconf set "$handover_key" '' --type string
}

# A mocked Bluetooth service with one remote control: the only part of the demo that is not real.
remote=AA:BB:CC:DD:EE:01
remote_path=/org/bluez/hci0/dev_AA_BB_CC_DD_EE_01
start_bluetooth() {
    /usr/bin/python3 -m dbusmock --system --template bluez5 >/dev/null 2>&1 &
    mock_pid=$!
    await "the Bluetooth service" on_bus org.bluez
    on_bluetooth /org/bluez org.bluez.Mock.AddAdapter hci0 television
    on_bluetooth /org/bluez org.bluez.Mock.AddDevice hci0 $remote Remote
    # Class of device: peripheral, remote control.
    update_remote "{'Class': <uint32 0x50c>}"
}
on_bluetooth() {
    gdbus call --address "$DBUS_SYSTEM_BUS_ADDRESS" --dest org.bluez --object-path "$1" --method "${@:2}" >/dev/null
}
update_remote() {
    on_bluetooth $remote_path org.freedesktop.DBus.Mock.UpdateProperties org.bluez.Device1 "$1"
}

# Connects and disconnects the remote until the rule of the example policy is hit.
reconnect_remote() {
    local connected
    for connected in true false true; do
        printf 'remote %s: connected %s\n' $remote $connected
        update_remote "{'Connected': <$connected>}"
        # Longer than the ignore time of the example policy, one second.
        sleep 2.1
    done
}

# Installs the example application three times, as a package tool does.
install_app() {
    local turn folder=$XDG_DATA_HOME/applications
    for turn in 1 2 3; do
        printf 'installing org.kaldo.example, turn %s\n' $turn
        printf '[Desktop Entry]\nType=Application\nName=Example %s\nExec=example\n' $turn >"$folder/example.new"
        mv "$folder/example.new" "$folder/org.kaldo.example.desktop"
        await "the install to be noticed" logged "$turn" 'AppInstallCb(), event : 100'
    done
}

# True when the application's log has a text at least so many times.
logged() {
    [ "$(grep -cF -- "$2" "$ZOL_ROOT/var/log/zol/system.log")" -ge "$1" ]
}
