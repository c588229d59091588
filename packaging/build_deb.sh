#!/bin/sh
# Builds the Debian package with dpkg-buildpackage from a copy of the
# source tree, so that neither the tree nor its build/ is touched:
#   build_deb.sh SOURCE OUTDIR [--lintian]
# The copy is OUTDIR/src (the project's files: tracked and new ones, not
# ignored ones); the .deb lands in OUTDIR. A copy identical to the last
# one packaged reuses that package. --lintian checks the package after.
set -eu
source=$(cd "$1" && pwd)
mkdir -p "$2"
out=$(cd "$2" && pwd)
check=${3:-}
stage=$out/src

# The files of the project, as a tar stream on standard output; the
# arguments are tar's further options.
project_files() {
    if git -C "$source" rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        git -C "$source" ls-files -z --cached --others --exclude-standard | sort -z |
            (cd "$source" && xargs -0 sh -c 'for f; do [ -e "$f" ] && printf "%s\0" "$f"; done' sh) |
            tar -C "$source" --null --no-recursion -T - -cf - "$@"
    else
        tar -C "$source" --exclude='./build*' --exclude=./.git -cf - "$@" .
    fi
}

# The sum of the files' names, modes and contents.
sum=$(project_files --sort=name --mtime=@0 --owner=0 --group=0 --numeric-owner |
    sha256sum | cut -d' ' -f1)
package=$(ls "$out"/pellin-mgr_*.deb 2>/dev/null | head -n 1 || true)
if [ -n "$package" ] && [ "$(cat "$out/source.sha256" 2>/dev/null)" = "$sum" ]; then
    echo "deb: $package is up to date"
else
    rm -rf "$stage" "$out"/pellin-mgr_* "$out"/pellin-mgr-dbgsym_* "$out/source.sha256"
    mkdir -p "$stage"
    project_files | tar -C "$stage" -xf -
    # debhelper gives the build a home of its own: ccache keeps its own.
    export CCACHE_DIR="${CCACHE_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/ccache}"
    echo "deb: building in $stage"
    (cd "$stage" && dpkg-buildpackage -b -us -uc -j"${JOBS:-$(nproc)}") \
        >"$out/build.log" 2>&1 || {
        tail -n 40 "$out/build.log"
        echo "deb: dpkg-buildpackage failed; the whole output is in $out/build.log" >&2
        exit 1
    }
    echo "$sum" >"$out/source.sha256"
    package=$(ls "$out"/pellin-mgr_*.deb | head -n 1)
    echo "deb: $package"
fi

if [ "$check" = --lintian ]; then
    # Errors fail the build; warnings and notes are shown.
    lintian --fail-on error --info "$out"/pellin-mgr_*.changes
fi
