# Sourced by the scripts that need a cloud: starts restclient-emulator of build $build over HTTPS
# with a client certificate, in a scratch folder $work that goes with it when the script ends,
# and points the controller settings at it. Sets $base (its address) and $emulator_pid.
work=$(mktemp -d)
emulator_pid=
cleanup() {
  if [ -n "$emulator_pid" ]; then
    kill "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

"$build/tools/restclient-emulator" --make-certs --require-client-cert --data-dir "$work/cloud" \
  --write-settings "$work/controller.conf" >"$work/emulator.out" 2>&1 &
emulator_pid=$!
base=
for _ in $(seq 100); do
  base=$(sed -n 's/^listening on //p' "$work/emulator.out")
  [ -n "$base" ] && [ -s "$work/controller.conf" ] && break
  sleep 0.1
done
[ -n "$base" ] || { echo "the emulator did not start:" >&2; cat "$work/emulator.out" >&2; exit 1; }
export TAVIX_CONTROLLER_CONFIG="$work/controller.conf"
