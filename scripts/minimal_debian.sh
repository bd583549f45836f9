# Read by the scripts that try the project in a minimal Debian, after common.sh.
# shellcheck shell=bash

# make_minimal_debian TAR PACKAGE[,PACKAGE...]: makes the tar file, a minimal Debian with these packages from this
# machine's package sources, unless it already exists.
make_minimal_debian() {
    local tar=$1 include=$2 suite i
    if [[ -e $tar && $(cat "$tar.packages" 2>/dev/null) == "$include" ]]; then
        return 0
    fi
    say "Making a minimal Debian"
    # shellcheck disable=SC1091  # a file of the system
    suite=$(source /etc/os-release && echo "$VERSION_CODENAME")
    local sources=(/etc/apt/sources.list /etc/apt/sources.list.d/debian.sources)
    for i in "${!sources[@]}"; do
        [[ -s ${sources[i]} ]] || unset "sources[$i]"
    done
    mmdebstrap --quiet --variant=minbase --include="$include" "$suite" "${tar%.tar}.new.tar" "${sources[@]}" ||
        fail "the minimal Debian could not be made" "Is there a network? Look at ${sources[*]}."
    mv "${tar%.tar}.new.tar" "$tar"
    echo "$include" >"$tar.packages"
}
