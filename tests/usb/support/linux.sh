# What Linux has of a USB sound device: its card, its raw MIDI ports.

# usb_card: the number of the first USB sound card.
usb_card() { sed -n 's/^ *\([0-9]*\) .*USB-Audio.*/\1/p' /proc/asound/cards | head -n 1 | grep .; }
no_usb_card() { ! usb_card; }

# usb_device VID [PID]: its folder under /sys/bus/usb/devices.
usb_device() {
    local folder
    for folder in /sys/bus/usb/devices/*; do
        [ "$(cat "$folder/idVendor" 2>/dev/null)" = "$1" ] || continue
        [ "$(cat "$folder/idProduct")" = "${2:-$(cat "$folder/idProduct")}" ] || continue
        echo "$folder" && return 0
    done
    return 1
}

# rawmidi_of TEXT: the hw:CARD,DEVICE name of the first raw MIDI port whose line has TEXT.
rawmidi_of() { amidi -l | grep -m 1 -F "$1" | grep -oE 'hw:[0-9,]+' | head -n 1 | grep .; }

# pass_sysex FROM TO FILE SECONDS: sends it from one raw MIDI port and compares what the other one
# hears within so many seconds.
pass_sysex() {
    local reader status bytes
    bytes=$(wc -c <"$3")
    rm -f heard.syx
    amidi -p "$2" -r heard.syx &
    reader=$!
    sleep 1 # it has no way of saying that it listens
    amidi -p "$1" -s "$3"
    wait_for "$4" eval "[ \"\$(wc -c <heard.syx)\" -ge $bytes ]"
    kill -INT $reader
    wait $reader
    cmp heard.syx "$3"
}
