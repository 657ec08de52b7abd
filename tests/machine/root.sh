# shellcheck shell=bash
# What the emulated machine boots: Debian's kernel, a small initial root that finds the disk, and the
# disk with the packages. Sourced by run, after machine.sh of the system test.
#
#   $here, $boot_test   this directory and the system test's
#   $packages, $build   what is tested
#   $work               gets kernel, initrd, root.img and images/

: "${here:?}" "${boot_test:?}" "${packages:?}" "${build:?}" "${cache:?}" "${work:?}" "${machine_root:?}"

in_root() { chroot "$machine_root" env LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }

# The packages with all that they need, and the kernel of the release without what would make an
# initial root of its own for it.
root_install() {
    local archives kernel
    mapfile -t archives < <(find "$packages" -name '*.deb' ! -name '*-dbgsym_*' ! -name 'quillon-dev_*')
    [ ${#archives[@]} -gt 0 ] || { echo "no packages in $packages" >&2; return 1; }
    machine_bring_packages "${archives[@]}"
    in_root sh -c 'apt-get install -qq --assume-yes /packages/*.deb' >"$work/install.log" 2>&1 ||
        { cat "$work/install.log" >&2; return 1; }
    in_root apt-get clean
    rm -r "$machine_root/packages"

    kernel=$(machine_apt_cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p')
    if ! compgen -G "$cache/kernel/${kernel}_*.deb" >/dev/null; then
        rm -rf "$cache/kernel" && mkdir "$cache/kernel"
        (cd "$cache/kernel" && machine_apt -o APT::Sandbox::User=root download "$kernel")
    fi
    dpkg-deb --extract "$cache/kernel/${kernel}"_*.deb "$work/kernel-package"
    cp "$work"/kernel-package/boot/vmlinuz-* "$work/kernel"
    cp -r "$work/kernel-package/lib/modules" "$machine_root/usr/lib/"
    rm -r "$work/kernel-package"
    kernel_release=${kernel#linux-image-}
    in_root depmod "$kernel_release"
    root_make_initrd
}

machine_apt_cache() {
    apt-cache -o Dir="$machine_root" -o Dir::State::status="$machine_root/var/lib/dpkg/status" "$@"
}

# It loads what the disk needs, and leaves the rest to the root.
root_make_initrd() {
    local tree=$work/initrd-tree module
    mkdir -p "$tree"/{bin,modules,dev,root}
    cp "$(command -v busybox)" "$tree/bin/busybox"
    for module in virtio_pci virtio_blk crc32c_generic ext4; do
        in_root modprobe --show-depends --set-version "$kernel_release" "$module"
    done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' >"$tree/modules/order"
    while read -r module; do
        cp "$machine_root$module" "$tree/modules/"
    done <"$tree/modules/order"
    cp "$here/init" "$tree/init"
    (cd "$tree" && find . | cpio --quiet --create --format=newc) | gzip -1 >"$work/initrd"
    rm -r "$tree"
}

# Keys and images are made by the installed programs; the emulated machine would take minutes.
root_bring_test() {
    local device=$machine_root/boot-test
    mkdir -p "$device/modules" "$device/images"
    cp "$boot_test/device.sh" "$here/agent" "$here/make-images" "$device/"
    cp "$build"/modules/*.so "$device/modules/"
    cp "$here/quillon-test-agent.service" "$machine_root/etc/systemd/system/"
    in_root systemctl --quiet enable quillon-test-agent.service
    in_root systemctl --quiet mask apt-daily.timer apt-daily-upgrade.timer dpkg-db-backup.timer \
        e2scrub_all.timer e2scrub_reap.service fstrim.timer serial-getty@ttyS0.service
    cp "$boot_test/checks/first-boot/20-maker.sh" "$device/make-keys"
    in_root sh /boot-test/make-keys >/dev/null
    in_root sh /boot-test/make-images >/dev/null
}

root_make_disk() {
    truncate -s 1500M "$work/root.img"
    mkfs.ext4 -q -F -O ^has_journal -d "$machine_root" "$work/root.img"
    rm -rf --one-file-system "$machine_root"
}
