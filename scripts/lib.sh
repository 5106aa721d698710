# shellcheck shell=bash
# Shell helpers of the scripts that run the server (demo.sh, memory.sh);
# sourced, not run. Messages start with $LAPI_SCRIPT (the script's name).

# Stops a process we started: SIGTERM, up to 5 s, then SIGKILL.
lapi_stop_pid() {
    local pid=$1
    [ -n "$pid" ] || return 0
    kill -0 "$pid" 2>/dev/null || return 0
    kill -TERM "$pid" 2>/dev/null || true
    for _ in $(seq 50); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
        echo "$LAPI_SCRIPT: $pid did not stop on SIGTERM; killing it" >&2
        kill -KILL "$pid" 2>/dev/null || true
    fi
    wait "$pid" 2>/dev/null || true
}

# Waits up to 10 s for a line matching a pattern in a file; with a pid,
# gives up at once when that process has ended.
lapi_wait_line() {
    local file=$1 pattern=$2 pid=${3:-}
    for _ in $(seq 100); do
        grep -q -- "$pattern" "$file" 2>/dev/null && return 0
        if [ -n "$pid" ] && ! kill -0 "$pid" 2>/dev/null; then
            break
        fi
        sleep 0.1
    done
    grep -q -- "$pattern" "$file" 2>/dev/null
}

# Starts openssl s_server on 127.0.0.1, TLS 1.0 only, as a web server
# (-WWW, which does not stop at the end of its input) serving DIR, on a free
# port: a port taken meanwhile just makes it try the next one. Sets TLS_PID
# and TLS_PORT; fails when no port worked.
#   lapi_start_s_server DIR CERT KEY LOG
lapi_start_s_server() {
    local dir=$1 cert=$2 key=$3 log=$4
    TLS_PID=""
    TLS_PORT=""
    for port in $(shuf -i 20000-60000 -n 20); do
        (cd "$dir" && exec openssl s_server -accept "127.0.0.1:$port" -tls1 \
            -cipher 'AES128-SHA:@SECLEVEL=0' -cert "$cert" -key "$key" \
            -WWW </dev/null >"$log" 2>&1) &
        TLS_PID=$!
        if lapi_wait_line "$log" ACCEPT "$TLS_PID" && kill -0 "$TLS_PID" 2>/dev/null; then
            # shellcheck disable=SC2034 # read by the caller
            TLS_PORT=$port
            return 0
        fi
        lapi_stop_pid "$TLS_PID"
        TLS_PID=""
    done
    return 1
}
