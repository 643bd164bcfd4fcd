# shellcheck shell=sh
# in_root ROOT COMMAND...: runs a command within a root, with a /proc of its own that ends with the command. Where
# nothing may be mounted, there is none.
in_root()
{
    if unshare --mount true 2>/dev/null; then
        # shellcheck disable=SC2016 # for the inner shell
        set -- unshare --mount --fork sh -c 'mount -t proc proc "$1/proc" && exec chroot "$@"' sh "$@"
    else
        set -- chroot "$@"
    fi
    DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8 HOME=/root "$@" </dev/null
}
