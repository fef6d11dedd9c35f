# The end of making a tree that a script keeps in the user's cache directory, under a name that ends in
# -HASH of what makes it (scripts/chroot.sh, scripts/testbed.sh). Sourced; the caller sets as_root.
#   made_tree_failed WHAT LOG     shows the log's last lines, says that WHAT's mmdebstrap failed, exits 1
#   keep_made_tree ROOT           ROOT.new, just made, becomes ROOT; the trees of the same name made for
#                                 another HASH go, with their logs

made_tree_failed() {
    tail -n 40 "$2" >&2
    echo "$1: mmdebstrap failed (the log's last lines above, all of it in $2)" >&2
    exit 1
}

keep_made_tree() {
    local root=$1
    local old
    for old in "${root%-*}"-*; do
        if [ "$old" != "$root.new" ] && [ "$old" != "$root.log" ]; then
            "${as_root[@]}" rm -rf --one-file-system "$old"
        fi
    done
    "${as_root[@]}" mv "$root.new" "$root"
}
