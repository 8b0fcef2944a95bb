# Shared by the scripts: where things are, how they talk. Sourced, not run.
# shellcheck shell=bash
set -euo pipefail
ZOL_TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export ZOL_TOP
# Compilations are found again from any clone of the project, not only from the one that made them; those
# with precompiled headers need the sloppiness.
export CCACHE_BASEDIR="$ZOL_TOP" CCACHE_NOHASHDIR=true CCACHE_SLOPPINESS=pch_defines,time_macros

if [ -t 1 ]; then
    bold=$(printf '\033[1m'); green=$(printf '\033[32m'); red=$(printf '\033[31m'); plain=$(printf '\033[0m')
else
    bold=''; green=''; red=''; plain=''
fi

step() { printf '%s== %s%s\n' "$bold" "$*" "$plain"; }
good() { printf '%s%s%s\n' "$green" "$*" "$plain"; }
# Ends the script with one line; with status 1 unless it has another one for what cannot run.
die() { printf '%s%s: %s%s\n' "$red" "$(basename "$0")" "$*" "$plain" >&2; exit "${DIE_STATUS:-1}"; }

# Prints the Debian 12 mirror that this machine itself uses, for images made of its packages.
debian_mirror() {
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk '($2 == "bookworm" || $2 == "stable" || $2 == "oldstable") && $3 == "main" && !done {print $1; done = 1}'
}

# Prints the comment block at the top of the calling script as its help.
show_help() { sed -n '2,/^[^#]/{s/^# \{0,1\}//p;}' "$0"; }

# Prints the folder for what tests write: in memory where there is room, because a disk that stalls makes calls take
# longer than their callers wait for them.
test_folder() {
    local room=0
    [ ! -w /dev/shm ] || room=$(df --output=avail --block-size=1M /dev/shm | tail -1)
    if [ "$room" -ge 1024 ]; then printf '/dev/shm\n'; else printf '%s\n' "${TMPDIR:-/tmp}"; fi
}

# Runs a command quietly; on failure shows the end of what it printed.
quietly() {
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        tail -60 "$log" >&2
        rm -f "$log"
        die "failed: $*"
    fi
    rm -f "$log"
}
