# A simulated interface, offered on the guest's loopback by this project and plugged into the guest's
# own USB by its usbip tool.

. /rig/linux.sh

export_port=3240

# start_export ARGUMENT...: kelvane export with these, until stop_export. Its log: export.log, its
# summary as JSON: export.json.
start_export() {
    modprobe vhci-hcd || return 1
    kelvane export "$@" --port $export_port --json >export.json 2>export.log &
    export_pid=$!
    wait_for 5 grep -q "exported as" export.log || { cat export.log && return 1; }
}

# export_id: the VID:PID of the only device with the vendor ID of the built-in interfaces.
export_id() { lsusb -d 1209: | sed -n 's/.* ID \([0-9a-f:]*\).*/\1/p' | head -n 1 | grep .; }

# stop_export: ends it as Ctrl-C does; its files are whole then.
stop_export() {
    kill -INT $export_pid
    wait $export_pid
}

attach() { usbip --tcp-port $export_port attach -r 127.0.0.1 -b 1-1; }

# detach: what is plugged into the first port of the guest's virtual controller. The tool does not
# find devices that the kernel could not enumerate: these are let go by hand.
detach() { usbip detach -p 00 || echo 0 >/sys/devices/platform/vhci_hcd.0/detach; }

# plug_in ARGUMENT...: exports an interface and attaches it, until Linux's audio driver shows a card.
plug_in() {
    start_export "$@" && attach && modprobe snd-usb-audio && wait_for 10 usb_card
}

# pull_out: detaches it, until the card is gone, and ends the export in any case.
pull_out() {
    local status=0
    { detach && wait_for 10 no_usb_card; } || status=1
    stop_export && return $status
}
