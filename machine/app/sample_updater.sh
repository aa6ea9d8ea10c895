#!/bin/sh
# A sample updater for ./run update: says what it is, on the console and on the display, and keeps running,
# because it is process 1 of the machine now.
echo "updater: process $$ has taken the loader's place"
sleep 2 # so that the loader's last word stays on the display for a moment
printf '2Updating\000' >/dev/qellpc_lcd
step=0
while sleep 1; do
    step=$((step + 1))
    echo "updater: step $step"
done
