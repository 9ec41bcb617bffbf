#!/bin/sh
# Runs fuzz targets for a time each, two at once, starting from the committed
# seeds. Inputs found on the way, logs and crash artefacts stay in the build
# tree (BUILD_DIR/fuzz/work, logs, artifacts).
#
#   fuzz/run.sh BUILD_DIR SECONDS [TARGET...]
set -eu
[ $# -ge 2 ] || { echo "usage: $0 BUILD_DIR SECONDS [TARGET...]" >&2; exit 2; }
build=$(cd "$1" && pwd)
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=${*:-"aead_token public_key symmetric_decrypt chacha_decrypt key_pem x509_pem x509_der pem_json verify_pem sign_pem create_ssl definition routines tls_peer cert_fields restore script"}

# Longest input per target: enough for the largest seed and some growth, and
# a bound on the work one input can ask for (the bundle reader re-reads a
# block per 25 bytes cut).
max_len() {
    case $1 in
        create_ssl) echo 1024 ;;
        public_key) echo 2048 ;;
        key_pem|sign_pem|verify_pem|x509_pem|pem_json) echo 8192 ;;
        definition|routines|tls_peer|restore) echo 16384 ;;
        script) echo 1024 ;;
        *) echo 4096 ;;
    esac
}

run_one() {
    target=$1
    work=$build/fuzz/work/$target
    mkdir -p "$work" "$build/fuzz/artifacts/$target" "$build/fuzz/logs"
    cp -n "$here/corpus/$target"/* "$work"/ 2>/dev/null || true
    if "$build/fuzz/fuzz_$target" "$work" -max_total_time="$seconds" -max_len="$(max_len "$target")" \
        -rss_limit_mb=4096 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$build/fuzz/artifacts/$target/" >"$build/fuzz/logs/$target.log" 2>&1; then
        status=ok
    else
        status=FAILED
    fi
    log=$build/fuzz/logs/$target.log
    if [ $status = ok ]; then
        echo "$target: ok; $(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1)"
    else
        echo "$target: FAILED; $(grep -m1 -E 'ERROR:|fuzz check failed|SUMMARY' "$log"); see $log"
    fi
}

# Two targets at a time.
set -- $targets
while [ $# -gt 0 ]; do
    run_one "$1" &
    if [ $# -gt 1 ]; then
        run_one "$2" &
        shift
    fi
    shift
    wait
done
