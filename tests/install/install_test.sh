#!/usr/bin/env bash
# Installs a build, moves what was installed elsewhere, and uses it from there as an author outside the tree does.
# usage: install_test.sh BUILD-DIRECTORY SOURCE-DIRECTORY COMPILER-C COMPILER-CXX
set -euo pipefail
build=$1 examples=$2/examples project=$2/tests/install/project cc=$3 cxx=$4
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

# check COLLECTOR HOST PROGRAM: what the outside project makes works.
check() {
  [[ $("$2") == *"events: 1 2 3 2" ]] || fail "$2"
  "$3" || fail "$3"
  local status=0
  rm -f sizes.xml
  "$prefix/bin/veskrun" -collector "$1" -out sizes.xml -- sh -c 'exit 7' || status=$?
  ((status == 7)) || fail "a program under $1 ends with $status, not 7"
  xmllint --noout sizes.xml && grep -q '<blocks>[1-9]' sizes.xml || fail "$(cat sizes.xml)"
}

diff <(ls "$examples/../include/veskrt") <(ls "$prefix/include/veskrt") || fail "the headers"
mkdir with-cmake
{
  (cd "$prefix/include" && printf '#include "%s"\n' veskrt/*)
  echo 'int main() { veskHostInstall(); return CollectorCommandHandler().processCommands() + 1; }'
} >with-cmake/every_header.cpp
cmake -G Ninja -S "$project" -B with-cmake -DEXAMPLES="$examples" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" \
  -DCMAKE_CXX_COMPILER="$cxx" >cmake.log && cmake --build with-cmake >>cmake.log || fail "the project with CMake: $(cat cmake.log)"
check "$work/with-cmake/libsizes_collector.so" with-cmake/choosing_containers with-cmake/every_header

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
{
  "$cc" -std=c99 -shared -fPIC "$examples/sizes_collector.c" -o libcollector.so $(pkg-config --cflags --libs veskrt)
  "$cc" -std=c99 "$examples/choosing_containers.c" -o host $(pkg-config --cflags --libs veskrt-host) -Wl,-rpath,"$libdir"
  "$cxx" -std=c++20 with-cmake/every_header.cpp -o program $(pkg-config --cflags --libs veskrt-host) -Wl,-rpath,"$libdir"
}
[[ -d $(pkg-config --variable=collectordir veskrt) ]] || fail "no collectors where pkg-config says"
check "$work/libcollector.so" ./host ./program

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
