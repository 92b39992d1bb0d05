#!/bin/sh
# Records from Aravis's fake GigE Vision camera on the loopback interface with `kestor grab`.
# The camera is opened by its address only (no discovery). One fake camera at a time on the
# loopback port: the lock is shared with the driver's unit tests.
#   grab_from_fake_gige_camera.sh KESTOR FAKE_CAMERA OUTPUT
kestor=$1 fake=$2 output=$3
command -v "$fake" >/dev/null 2>&1 || { echo "SKIP: $fake is not installed"; exit 0; }
exec 9>/tmp/kestor-genicam-fake-camera.lock
flock 9
"$fake" -i 127.0.0.1 >/dev/null 2>&1 &
camera=$!
trap 'kill $camera 2>/dev/null; wait $camera 2>/dev/null' EXIT
# The camera answers within a moment of starting; try a bounded number of times.
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    if "$kestor" grab "$output" --driver genicam --camera 127.0.0.1 --reset --frames 50; then
        "$kestor" info "$output"
        exit 0
    fi
    sleep 0.5
done
exit 1
