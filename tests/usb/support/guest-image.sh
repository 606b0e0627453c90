# What the guest boots: Debian's kernel as it comes, and an initramfs with the modules, the tools and
# the command. Sourced by tests/usb/run, at the root of the project.

# Only unpacked, never installed: the host keeps its own.
guest_packages="busybox-static usbip libwrap0 usbutils"
guest_modules="vhci-hcd snd-usb-audio snd-usbmidi-lib snd-seq-midi usbmon dummy_hcd usbip-vudc
    libcomposite usb_f_midi usb_f_uac2 9p 9pnet_virtio virtio_pci"
guest_tools="modprobe lsmod aplay arecord amidi aseqdump"

# get_packages OUT: downloads the kernel and the guest's tools into OUT/packages, once.
get_packages() {
    local debs=$1/packages log=$1/packages.log
    [ -e "$debs/complete" ] && return 0
    echo "tests/usb/run: downloading the guest's kernel and tools (once)" >&2
    rm -rf "$debs" && mkdir -p "$debs" || return 1
    if ! { fetch_all "$debs" || { apt-get update && fetch_all "$debs"; }; } >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        echo "tests/usb/run: apt-get can't download them; all of its output is in $log" >&2
        return 1
    fi
    touch "$debs/complete"
}

fetch_all() {
    local kernel
    kernel=$(kernel_package) && (cd "$1" && apt-get download "$kernel" $guest_packages)
}

# The kernel that Debian's metapackage stands for.
kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        sed -n 's/^ *Depends: *\(linux-image-[0-9][^ ]*-amd64\)$/\1/p' | grep .
}

# make_system OUT: unpacks the packages and makes OUT/system of them: vmlinuz and base.cpio, the part
# of the initramfs that no build of the project changes.
make_system() {
    local out=$1 system=$1/system log=$1/system.log
    [ "$system/base.cpio" -nt tests/usb/support/guest-image.sh ] && return 0
    if ! make_system_logged "$out" >"$log" 2>&1; then
        tail -n 20 "$log" >&2
        echo "tests/usb/run: can't put the guest together; all of the output is in $log" >&2
        return 1
    fi
}

make_system_logged() {
    local system=$1/system unpacked=$1/unpacked root=$1/root package release
    rm -rf "$system" "$unpacked" "$root"
    mkdir -p "$system" "$unpacked" || return 1
    for package in "$1"/packages/*.deb; do
        dpkg-deb -x "$package" "$unpacked" || return 1
    done
    release=$(basename "$unpacked"/boot/vmlinuz-*)
    release=${release#vmlinuz-}
    cp "$unpacked/boot/vmlinuz-$release" "$system/vmlinuz" &&
        make_folders "$root" &&
        add_modules "$unpacked" "$root" "$release" &&
        add_tools "$unpacked" "$root" &&
        pack "$root" "$system/base.cpio.new" &&
        mv "$system/base.cpio.new" "$system/base.cpio" &&
        rm -rf "$unpacked" "$root"
}

make_folders() {
    mkdir -p "$1"/{bin,dev,proc,sys,tmp,run,files,etc,var} && ln -s ../run "$1/var/run"
}

# add_modules UNPACKED ROOT RELEASE: guest_modules and what they need.
add_modules() {
    local unpacked=$1 root=$2 release=$3 module paths=()
    depmod -b "$unpacked" "$release" || return 1
    # The kernel's own tool follows the soft dependencies that busybox leaves out.
    for module in $guest_modules; do
        mapfile -t -O ${#paths[@]} paths < <(modprobe -d "$PWD/$unpacked" -S "$release" \
            --show-depends "$module" | sed -n "s|^insmod $PWD/$unpacked/\([^ ]*\).*|\1|p")
    done
    (cd "$unpacked" && cp --parents "${paths[@]}" "lib/modules/$release"/modules.{builtin,order} \
        "$OLDPWD/$root") && depmod -b "$root" "$release"
}

# add_tools UNPACKED ROOT: busybox under all of its names, guest_tools of the host, and the rest from
# the packages.
add_tools() {
    local unpacked=$1 root=$2 tool path
    cp "$unpacked/bin/busybox" "$root/bin/" || return 1
    for tool in $("$root/bin/busybox" --list); do
        [ "$tool" = busybox ] || ln -s busybox "$root/bin/$tool" || return 1
    done
    for tool in $guest_tools; do
        path=$(command -v "$tool") && add_program "$path" "$root" || return 1
    done
    for path in "$unpacked"/usr/sbin/{usbip,usbipd} "$unpacked"/usr/bin/lsusb; do
        add_program "$path" "$root" "$PWD/$unpacked" || return 1
    done
        cp -r --parents /usr/share/alsa "$root"
}

# add_program FILE ROOT [PLACE]: the program as /bin/NAME, and the libraries it is linked with where
# it looks for them. PLACE: an unpacked tree that may have some of these.
add_program() {
    local library place=${3:-}
    rm -f "$2/bin/$(basename "$1")" && cp -L "$1" "$2/bin/$(basename "$1")" || return 1
    LD_LIBRARY_PATH=${place:+$(echo "$place"/usr/lib/*-linux-gnu)} ldd "$1" |
        grep -oE '/[^ ]+\.so[^ ]*' | while IFS= read -r library; do
        install -D "$library" "$2/${library#"$place"}" || return 1
    done
}

# make_inputs FOLDER: the files that scenarios send.
make_inputs() {
    [ "$1/complete" -nt tests/usb/support/sounds.py ] ||
        { python3 -B tests/usb/support/make-inputs "$1" && touch "$1/complete"; }
}

# make_initramfs OUT FILE: the base with today's command and scenarios on top of it.
make_initramfs() {
    local system=$1/system file=$2 top
    top=$(mktemp -d "$1/top.XXXXXX") || return 1
    mkdir -p "$top/bin" "$top/rig/dumps" &&
        cp tests/usb/support/init "$top/init" &&
        cp -r tests/usb/support/. tests/usb/guest "$top/rig/" &&
        make_inputs "$1/inputs" && cp -r "$1/inputs" "$top/rig/" &&
        add_program build/release/cli/kelvane "$top" || return 1
    if [ -n "${KELVANE_DUMPS:-}" ]; then
        cp "$KELVANE_DUMPS"/*.bin "$top/rig/dumps/" || return 1
    fi
    # Two archives behind each other: the kernel unpacks the second over the first.
    pack "$top" "$top.cpio" && cat "$system/base.cpio" "$top.cpio" >"$file"
    local status=$?
    rm -rf "$top" "$top.cpio"
    return $status
}

# Everything belongs to root, whoever packs it.
pack() { (cd "$1" && find . | cpio --quiet -o -H newc -R 0:0) >"$2"; }
