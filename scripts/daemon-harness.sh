# Runs the daemon beside the simulator in a private root and counts its
# cycles (sourced by the scripts that watch a long run of it).
# After `harness_start BUILD_DIR TIME_SCALE [WRAPPER...]`: $ZELO_ROOT, $daemon
# (the daemon's pid), and `harness_wait_cycles N` to wait for N cycles.
# With harness_bus=1 the daemon is the one linked with the D-Bus platform
# library, and the simulator serves it on a private dbus-daemon.

harness_start() { # build dir, time scale, wrapper command...
    local bin=$1 scale=$2
    shift 2
    export ZELO_ROOT=$(mktemp -d /tmp/zelo-soak-XXXXXX)
    mkdir -p "$ZELO_ROOT/pstorage" "$ZELO_ROOT/var/lib/zelo/kiv" # the controller's storage
    local program=$bin/zelo sim_args=()
    bus=
    trap 'kill $sim $bus 2>/dev/null; rm -rf "$ZELO_ROOT"' EXIT
    if [ "${harness_bus:-}" = 1 ]; then
        sed -e "s|@SOCKET@|$ZELO_ROOT/bus|" -e "s|@POLICY@|$PWD/bus/xyz.openbmc_project.Zelo.conf|" \
            tests/private-system-bus.conf >"$ZELO_ROOT/bus.conf"
        dbus-daemon --nofork --config-file="$ZELO_ROOT/bus.conf" 2>/dev/null &
        bus=$!
        for _ in $(seq 50); do [ -S "$ZELO_ROOT/bus" ] && break; sleep 0.1; done
        export DBUS_SYSTEM_BUS_ADDRESS=unix:path=$ZELO_ROOT/bus
        sim_args=(--bus "$DBUS_SYSTEM_BUS_ADDRESS")
        program=$bin/platform-dbus/zelo
        # The time-out runs as fast as the daemon's clock.
        mkdir -p "$ZELO_ROOT/etc/zelo"
        echo "timeout-ms = 60000" >"$ZELO_ROOT/etc/zelo/platform-dbus.conf"
    fi
    "$bin/zelo-fwsim" --scenario sim/scenarios/lively.scn --time-scale "$scale" "${sim_args[@]}" \
        >/dev/null &
    sim=$!
    for _ in $(seq 50); do [ -S "$ZELO_ROOT/run/zelo-fwsim.sock" ] && break; sleep 0.1; done
    # Verbosity 1 traces one line per cycle, which is what is counted.
    echo 1 >"$ZELO_ROOT/var/lib/zelo/kiv/ZELO_power_history_log_level"
    local faketime_lib
    faketime_lib=$(dpkg -L libfaketime | grep '/libfaketime.so.1$' | head -n 1)
    LD_PRELOAD=$faketime_lib FAKETIME="+0 x$scale" "$@" "$program" >/dev/null &
    daemon=$!
    harness_bin=$bin
    declare -gA harness_seen=([0]=0 [1]=0)
    cycles_done=0
}

# Cycles are counted as their trace lines arrive. The two trace files take
# turns: a file whose count fell was started again, and all its lines are new.
harness_count() {
    local i now
    for i in 0 1; do
        now=$(grep -c 'psBuffer->u16Tag is' "$ZELO_ROOT/tmp/zelo_trace/zelo_trace_log_$i.txt" \
            2>/dev/null || true)
        now=${now:-0}
        if [ "$now" -lt "${harness_seen[$i]}" ]; then
            cycles_done=$((cycles_done + now))
        else
            cycles_done=$((cycles_done + now - harness_seen[$i]))
        fi
        harness_seen[$i]=$now
    done
}

harness_wait_cycles() { # cycles; fails when the daemon ends first
    local seconds=0
    while [ "$cycles_done" -lt "$1" ]; do
        sleep 1
        seconds=$((seconds + 1))
        if ! kill -0 "$daemon" 2>/dev/null; then
            echo "zelo ended early; the end of its trace log:"
            tail -n 5 "$ZELO_ROOT"/tmp/zelo_trace/*.txt 2>/dev/null || true
            return 1
        fi
        harness_count
        # A power cap change now and then, so the cycles take every path.
        [ $((seconds % 5)) -eq 0 ] &&
            "$harness_bin/zelo-fwsim" --control "reg 0 7 2 $((600 + seconds % 400))" || true
    done
}
