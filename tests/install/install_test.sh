#!/usr/bin/env bash
# Installs a build, moves what was installed elsewhere, and uses it from there as an author outside the tree does.
# usage: install_test.sh BUILD-DIRECTORY PROJECT-DIRECTORY COMPILER-C COMPILER-CXX
set -euo pipefail
build=$1 project=$2 cc=$3 cxx=$4
unset LD_LIBRARY_PATH LD_PRELOAD PKG_CONFIG_PATH CMAKE_PREFIX_PATH

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cmake --install "$build" --prefix "$work/first" >install.log || fail "the installation: $(cat install.log)"
mv first second
prefix=$work/second
libdir=$(dirname "$(find "$prefix" -name libveskrt.so.13)")
[[ $(readlink "$libdir/libveskrt.so") == libveskrt.so.13 && $(readlink "$libdir/libveskrt.so.13") == libveskrt.so.13.*.* ]] ||
  fail "the library's links"

# check COLLECTOR HOST: what the outside project makes works.
check() {
  [[ $("$2") == "500500 -1" ]] || fail "$2"
  local status=0
  rm -f outside.xml
  "$prefix/bin/veskrun" -collector "$1" -- sh -c 'exit 7' || status=$?
  ((status == 7)) || fail "a program under $1 ends with $status, not 7"
  xmllint --noout outside.xml
  grep -q '<modules>[^<]*/libc\.so' outside.xml && grep -q '<status>7</status>' outside.xml || fail "$(cat outside.xml)"
}

cmake -G Ninja -S "$project" -B with-cmake -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >cmake.log &&
  cmake --build with-cmake >>cmake.log || fail "the project with CMake: $(cat cmake.log)"
check "$work/with-cmake/liboutside_collector.so" with-cmake/outside_host

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
{
  "$cc" -std=c99 -shared -fPIC "$project/collector.c" -o libcollector.so $(pkg-config --cflags --libs veskrt)
  "$cxx" -std=c++20 "$project/host.cpp" -o host $(pkg-config --cflags --libs veskrt-host) -Wl,-rpath,"$libdir"
}
[[ -d $(pkg-config --variable=collectordir veskrt) ]] || fail "no collectors where pkg-config says"
check "$work/libcollector.so" ./host

# The installed collectors, on a real program.
"$prefix/bin/veskrun" -out heap.xml -log heap.log -- perl -e 'my @a = map { "word $_" } 1 .. 1000; print scalar @a, "\n"' >output 2>table
[[ $(cat output) == 1000 ]] && grep -q 'veskheap: .* heap calls' table || fail "$(cat output table)"
xmllint --noout heap.xml
"$prefix/bin/veskrun" -collector annotations -out annotations.xml -log annotations.log -- ls / >/dev/null
xmllint --noout annotations.xml

# Manuals and completions know every option that the programs know.
options() { "$@" 2>&1 | grep -oE '^ +-[a-z-]+(, ?--[a-z-]+)?' | tr ', ' '\n\n' | grep .; }
known() {
  local option manual=$prefix/share/man/man1/$1.1 completion=$prefix/share/bash-completion/completions/$2
  while read -r option; do
    grep -qE -- "Fl ${option#-}( |$)" "$manual" || fail "$1.1 does not tell of $option"
    grep -vE '^ +-.*\)' "$completion" | grep -qE -- "[ ']$option[ ']|_parse_help" || [[ $option == -h ]] ||
      fail "the completion of $2 does not know $option"
  done
}
help=$("$prefix/bin/veskrun" --help)
options echo "${help%%Collectors:*}" | known veskrun veskrun
options echo "${help#*Collectors:}" | known veskheap veskrun
help=$("$prefix/bin/veskrun" -collector annotations --help)
options echo "${help#*Collectors:}" | known veskrun veskrun
options "$prefix/bin/veskctl" --help | known veskctl veskctl
[[ ! -e $prefix/bin/veskreport ]] || options "$prefix/bin/veskreport" --help | known veskreport veskreport
