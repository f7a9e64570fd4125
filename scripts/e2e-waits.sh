# Bounded waiting for the guest scripts of the NFS round trip; sourced.

# Runs a command with a bound on its time.
bounded() {
    local seconds=$1
    shift
    timeout --kill-after=5 "$seconds" "$@"
}

# Waits up to $1 seconds (in tenths) for the condition in the rest.
wait_for() {
    local tenths=$(($1 * 10))
    shift
    while ! "$@"; do
        tenths=$((tenths - 1))
        [[ $tenths -gt 0 ]] || return 1
        sleep 0.1
    done
}
