# A device that is not this project's: the kernel's gadget functions, on its dummy host controller or
# shared with its virtual one. Neither carries isochronous transfers of a gadget; the second takes
# functions that have some.

. /rig/linux.sh

gadget=/sys/kernel/config/usb_gadget/rig

# make_gadget VID PID CONTROLLER FUNCTION...: a high-speed device of these functions, in their order:
# midi (one port each way), uac2 (two channels to the host, none from it: the virtual controller
# breaks off at isochronous packets that aren't full). CONTROLLER: dummy_udc.0, which plugs it in,
# or usbip-vudc.0, see share_gadget.
make_gadget() {
    local function controller=$3
    modprobe -a dummy_hcd usbip-vudc && modprobe libcomposite || return 1
    [ -d /sys/kernel/config/usb_gadget ] || mount -t configfs config /sys/kernel/config
    mkdir -p $gadget/strings/0x409 $gadget/configs/c.1 || return 1
    echo "0x$1" >$gadget/idVendor
    echo "0x$2" >$gadget/idProduct
    echo "not ours" >$gadget/strings/0x409/product
    echo "rig" >$gadget/strings/0x409/manufacturer
    echo "0001" >$gadget/strings/0x409/serialnumber
    shift 3
    for function in "$@"; do
        mkdir $gadget/functions/$function.usb0 || return 1
        [ $function != uac2 ] || echo 0 >$gadget/functions/$function.usb0/c_chmask
        ln -s $gadget/functions/$function.usb0 $gadget/configs/c.1/ || return 1
    done
    echo "$controller" >$gadget/UDC
}

# share_gadget: offers the gadget on usbip-vudc.0 to the virtual host controller, and plugs it in.
share_gadget() {
    modprobe vhci-hcd && usbipd --device --daemon &&
        wait_for 5 usbip list -r 127.0.0.1 && usbip attach -r 127.0.0.1 -b usbip-vudc.0
}

# remove_gadget: takes the device off its bus, and apart.
remove_gadget() {
    local entry
    echo "" >$gadget/UDC
    for entry in $gadget/configs/c.1/*.usb0; do rm "$entry"; done
    for entry in $gadget/functions/*; do rmdir "$entry"; done
}
