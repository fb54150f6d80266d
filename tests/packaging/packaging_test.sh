#!/usr/bin/env bash
# packaging_test.sh Consumer|Docs|Units|Rpm: checks what an installed kivreg offers.
# Environment (set by CTest): KIVREG_SOURCE_DIR, KIVREG_BINARY_DIR, KIVREG_CC,
# KIVREG_CONSUMER_CFLAGS, KIVREG_GENERATOR; KIVREG_TEST_EMULATOR in a cross
# build. Exit 77 means skipped.
set -euo pipefail
src=$KIVREG_SOURCE_DIR
bin=$KIVREG_BINARY_DIR
# The programs built here run through it (words, so unquoted where used).
emulator=${KIVREG_TEST_EMULATOR:-}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# The options `kivreg -help` and `kivreg --help` list, one per line.
program_options() {
    {
        $emulator "$bin/kivreg" -help
        $emulator "$bin/kivreg" --help </dev/null 2>/dev/null || true
    } | sed -nE 's/^\[?(--?[a-z][a-z-]*).*/\1/p' | sort -u
}

# Installs into a fresh prefix and builds and runs a C program against it, once
# through the CMake package and once through pkg-config.
consumer() {
    local prefix=$tmp/prefix
    cmake --install "$bin" --prefix "$prefix" >/dev/null

    cmake -S "$src/tests/packaging/consumer" -B "$tmp/cmake" -G "$KIVREG_GENERATOR" \
        -DCMAKE_C_COMPILER="$KIVREG_CC" -DCMAKE_C_FLAGS="$KIVREG_CONSUMER_CFLAGS" \
        -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/cmake.log" || { cat "$tmp/cmake.log"; fail "find_package"; }
    grep -q "^kivreg_DIR:PATH=$prefix/" "$tmp/cmake/CMakeCache.txt" ||
        fail "find_package did not take the package from $prefix"
    cmake --build "$tmp/cmake" >"$tmp/build.log" || { cat "$tmp/build.log"; fail "CMake build"; }
    $emulator "$tmp/cmake/consumer" "$tmp/connect-cmake" >"$tmp/run.log" || { cat "$tmp/run.log"; fail "CMake consumer"; }

    local pc
    pc=$(dirname "$(find "$prefix" -name kivreg.pc)")
    export PKG_CONFIG_PATH=$pc
    [[ $(pkg-config --variable=prefix kivreg) == "$prefix" ]] ||
        fail "kivreg.pc names prefix $(pkg-config --variable=prefix kivreg), not $prefix"
    # shellcheck disable=SC2046,SC2086
    "$KIVREG_CC" -std=c11 $KIVREG_CONSUMER_CFLAGS "$src/tests/packaging/consumer/consumer.c" \
        -o "$tmp/consumer-pc" $(pkg-config --cflags --libs kivreg) \
        -Wl,-rpath,"$(pkg-config --variable=libdir kivreg)"
    $emulator "$tmp/consumer-pc" "$tmp/connect-pc" >"$tmp/run.log" || { cat "$tmp/run.log"; fail "pkg-config consumer"; }
}

# The man pages render without a warning and name the program's version;
# kivreg(3) describes every function of the header; kivreg(1) and the
# completion offer every option the program has, the completion no other.
docs() {
    local page warnings version missing
    version=$($emulator "$bin/kivreg" -version | sed -nE 's/^ \[([0-9.]+)\].*/\1/p')
    for page in "$src"/doc/kivreg.1 "$src"/doc/kivreg.3; do
        warnings=$(groff -man -ww -z "$page" 2>&1) || fail "groff failed on $page"
        [[ -z $warnings ]] || fail "$page: $warnings"
        grep -q "^\.TH .*\"kivreg $version\"" "$page" || fail "$page is not for version $version"
    done

    grep -oE 'KivReg[A-Za-z]+' "$src/include/kivreg.h" | sort -u >"$tmp/functions"
    missing=$(comm -23 "$tmp/functions" <(grep -oE 'KivReg[A-Za-z]+' "$src/doc/kivreg.3" | sort -u))
    [[ -z $missing ]] || fail "kivreg.3 lacks:" $missing

    program_options >"$tmp/program"
    grep -oE '(\\-)+[a-z]+(\\-[a-z]+)*' "$src/doc/kivreg.1" | sed 's/\\-/-/g' | sort -u >"$tmp/man"
    missing=$(comm -23 "$tmp/program" "$tmp/man")
    [[ -z $missing ]] || fail "kivreg.1 lacks:" $missing

    # shellcheck disable=SC1091
    source /usr/share/bash-completion/bash_completion
    # shellcheck disable=SC1091
    source "$src/completion/kivreg"
    complete_words() {
        COMP_WORDS=(kivreg "$@")
        COMP_CWORD=$#
        COMP_LINE="kivreg $*"
        COMP_POINT=${#COMP_LINE}
        COMPREPLY=()
        _kivreg kivreg "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
        printf '%s\n' "${COMPREPLY[@]}" | sort -u
    }
    [[ $(complete_words -) == "$(cat "$tmp/program")" ]] ||
        fail "completion offers other options:" $(complete_words - | diff - "$tmp/program" | grep '^[<>]')
    touch "$tmp/doc.xml"
    local opt
    for opt in -file -connectfile -symbolfile -configure -showconnect -logfile; do
        [[ $(complete_words "$opt" "$tmp/do") == "$tmp/doc.xml" ]] || fail "no file name after $opt"
    done
}

# systemd accepts the four units and rates both services at most 2.0 (OK);
# their commands, as ExecStart= writes them, run under an unprivileged uid with
# the directories and the credential systemd would give them (everything under
# $tmp): a registration that found no directory is spooled, the flush delivers
# it once the directory is up, and the status file is readable by another
# unprivileged uid through a link like the one the package makes for the
# node exporter.
units() {
    command -v systemd-analyze >/dev/null || { echo "systemd-analyze missing"; exit 77; }
    local units=(kivreg-register.service kivreg-register.timer kivreg-flush.service kivreg-flush.timer)
    local out unit port score status
    local -a run_as=() peek_as=()
    for unit in "${units[@]}"; do
        sed "s#/usr/bin/kivreg#$bin/kivreg#" "$src/systemd/$unit" >"$tmp/$unit"
    done
    out=$(cd "$tmp" && systemd-analyze verify --man=no "${units[@]}" 2>&1) || fail "systemd-analyze: $out"
    [[ -z $out ]] || fail "systemd-analyze: $out"
    for unit in kivreg-register.service kivreg-flush.service; do
        score=$(systemd-analyze security --offline=yes "$tmp/$unit" 2>&1 |
            sed -nE 's/.*Overall exposure level for .*: ([0-9.]+) .*/\1/p')
        [[ -n $score ]] || fail "$unit: no exposure level"
        awk -v s="$score" 'BEGIN { exit !(s <= 2.0) }' || fail "$unit: exposure $score, above 2.0"
    done
    if command -v systemd-sysusers >/dev/null; then
        mkdir -p "$tmp/root/etc"
        systemd-sysusers --root "$tmp/root" "$src/systemd/kivreg.sysusers" >/dev/null 2>&1 ||
            fail "systemd-sysusers refuses kivreg.sysusers"
        for unit in kivreg-register.service kivreg-flush.service; do
            grep -q "^$(sed -n 's/^User=//p' "$src/systemd/$unit"):" "$tmp/root/etc/passwd" ||
                fail "$unit runs as a user that kivreg.sysusers does not make"
        done
    fi

    # As root the commands run as uids of no user; otherwise the caller is unprivileged already.
    if [[ $(id -u) == 0 ]]; then
        run_as=(setpriv --reuid 61727 --regid 61727 --clear-groups)
        peek_as=(setpriv --reuid 61728 --regid 61728 --clear-groups)
        chmod 0755 "$tmp"
    fi
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    mkdir -p "$tmp/creds" "$tmp/collector" "$tmp/log" "$tmp/state"
    chmod "$(sed -n 's/^StateDirectoryMode=//p' "$src/systemd/kivreg-register.service")" "$tmp/state"
    $emulator "$bin/kivreg" -configure "$tmp/creds/connect" -user u -pass p -host 127.0.0.1 -port "$port" >/dev/null
    chmod 0400 "$tmp/creds/connect" && chmod 0500 "$tmp/creds"
    if [[ ${#run_as[@]} != 0 ]]; then chown -R 61727:61727 "$tmp/creds" "$tmp/log" "$tmp/state"; fi
    ln -s "$tmp/state/kivreg.prom" "$tmp/collector/kivreg.prom"
    # The command's words, with the paths of this build and of $tmp.
    command_of() {
        sed -n '/^ExecStart=/,/[^\\]$/p' "$src/systemd/$1" | sed -e 's/\\$//' | tr -d '\n' |
            sed -e 's/^ExecStart=//' -e "s#\${CREDENTIALS_DIRECTORY}#$tmp/creds#" \
                -e "s#/usr/bin/kivreg#${emulator:+$emulator }$bin/kivreg#" -e "s#/etc/kivreg/#$src/examples/#g" \
                -e "s#--retry 5#--retry 0#" \
                -e "s#/var/log/kivreg#$tmp/log#g" -e "s#/var/lib/kivreg#$tmp/state#g"
    }
    run_unit() {  # unit expected-exit-status
        local -a words
        read -ra words <<<"$(command_of "$1")"
        status=0
        (cd "$tmp/log" && umask 0077 && "${run_as[@]}" "${words[@]}") >"$tmp/run.log" 2>&1 || status=$?
        [[ $status == "$2" ]] || { cat "$tmp/run.log"; fail "$1 exited $status, not $2"; }
        grep -qx "kivreg_last_run_exit_status $2" "$tmp/collector/kivreg.prom" ||
            fail "$1: the collector's link shows no status $2"
    }
    run_unit kivreg-register.service 2  # no directory yet
    [[ $(find "$tmp/state/spool" -name '*.kiv' | wc -l) == 1 ]] || fail "the register unit kept nothing"

    python3 "$src/tools/kivreg_dirserver.py" --quiet --port "$port" --user u --password p \
        --store "$tmp/store" >"$tmp/server.out" 2>&1 &
    local server=$!
    # shellcheck disable=SC2064
    trap "kill $server 2>/dev/null; rm -rf '$tmp'" EXIT
    for _ in $(seq 100); do
        grep -q '^listening on' "$tmp/server.out" && break
        sleep 0.1
    done
    grep -q '^listening on' "$tmp/server.out" || { cat "$tmp/server.out"; fail "the directory server did not start"; }
    run_unit kivreg-flush.service 0
    [[ $(find "$tmp/state/spool" -name '*.kiv' | wc -l) == 0 ]] || fail "the flush left the entry"
    # The flush delivered this very document, so the hourly run finds it unchanged.
    run_unit kivreg-register.service 0
    grep -q 'Registration unchanged since' "$tmp/run.log" || fail "the register unit sent again"
    [[ $(find "$tmp/store" -name '*.xml' | wc -l) == 1 ]] || fail "the directory got it twice"
    kill "$server"

    [[ $(stat -c %a "$tmp/state/spool") == 700 ]] || fail "the spool is open to others"
    [[ $(stat -c %a "$tmp/log/kivreg.log") == 600 ]] || fail "the log is open to others"
    "${peek_as[@]}" cat "$tmp/collector/kivreg.prom" >/dev/null || fail "the exporter cannot read the status"
}

# The RPM packages that scripts/package-rpm.sh left in dist/, when there are
# any: each needs nothing outside the base repositories (the C and C++
# runtimes, libxml2, OpenSSL 3's libraries, rpm's own features) but its
# sibling, and holds what the README says, no more.
rpms() {
    command -v rpm >/dev/null || { echo "rpm is not installed"; exit 77; }
    local base='^(rpmlib\(.*\)|rtld\(GNU_HASH\)|/sbin/ldconfig|/bin/sh|/usr/bin/pkg-config|pkgconfig'
    base+='|lib(c|m|gcc_s|stdc\+\+|xml2|ssl|crypto)\.so\.[0-9]+\(.*\)(\(64bit\))?'
    base+='|libkivreg\.so\.1\(\)(\(64bit\))?|libkivreg1(\([a-z0-9_-]+\))? = [0-9.]+-[0-9]+)( .*)?$'
    local lib='/usr/lib(64)?' units='/usr/lib/systemd/system/kivreg-(register|flush)\.(service|timer)'
    local -A holds=(
        [kivreg]="/usr/bin/kivreg /usr/share/man/man1/kivreg\.1(\.gz)? /usr/share/bash-completion/completions/kivreg $units /usr/lib/sysusers\.d/kivreg\.conf"
        [libkivreg1]="$lib/libkivreg\.so\.1 $lib/libkivreg\.so\.1\.0\.0"
        [libkivreg-devel]="/usr/include/kivreg\.h $lib/libkivreg\.so $lib/cmake/kivreg(/kivreg[A-Za-z-]*\.cmake)? $lib/pkgconfig/kivreg\.pc /usr/share/man/man3/kivreg\.3(\.gz)?"
    )
    local pkg rpm pattern outside
    for pkg in kivreg libkivreg1 libkivreg-devel; do
        rpm=$(find "$src/dist/" -maxdepth 1 -name "$pkg-[0-9]*.rpm" ! -name '*.src.rpm' 2>/dev/null |
            sort | tail -1 || true)
        [[ -n $rpm ]] || { echo "no $pkg package in $src/dist (scripts/package-rpm.sh makes them)"; exit 77; }
        outside=$(rpm -qp --requires "$rpm" | grep -vE "$base" || true)
        [[ -z $outside ]] || fail "$pkg requires what the base repositories may lack:" $outside
        rpm -qlp "$rpm" >"$tmp/$pkg.files"
        for pattern in ${holds[$pkg]}; do
            grep -qE "^$pattern\$" "$tmp/$pkg.files" || fail "$pkg lacks $pattern"
        done
        # rpmbuild adds the build-id links of the binaries itself.
        outside=$(grep -vxE "($(tr ' ' '|' <<<"${holds[$pkg]}")|/usr/lib/\.build-id(/.*)?)" \
            "$tmp/$pkg.files" || true)
        [[ -z $outside ]] || fail "$pkg holds more than the README says:" $outside
    done
}

case ${1:-} in
    Consumer) consumer ;;
    Docs) docs ;;
    Units) units ;;
    Rpm) rpms ;;
    *) fail "usage: $0 Consumer|Docs|Units|Rpm" ;;
esac
