# Shared by the scripts of this folder: sourced, never run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export LANG=C.UTF-8 LC_ALL=C.UTF-8
# Compilers search the folders in these variables, and the program database would record them.
unset LIBRARY_PATH COMPILER_PATH CPATH C_INCLUDE_PATH CPLUS_INCLUDE_PATH
cache=${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/agentcli

say() { printf '== %s\n' "$*"; }
die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Runs a long command with its output kept in a log; the log's end is shown when the command fails.
quietly() { # quietly LOG COMMAND...
  local log=$1
  shift
  "$@" >"$log" 2>&1 </dev/null || {
    tail -n 40 "$log" >&2
    die "failed: $* (the whole output is in $log)"
  }
}

as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo -- "$@"
  else
    die "installing packages takes root or sudo"
  fi
}

# The cross-built dependencies: name, upstream version, and the CMake options of each.
dependency_list=$root/cmake/dependencies/list.txt
toolchain_file=$root/cmake/toolchains/windows-cross.cmake

dependency_prefix() {
  local key
  key=$(cat "$root"/cmake/dependencies/* "$toolchain_file" "$root/script/build-dependencies" | sha256sum | cut -c1-16)
  printf '%s/prefix-%s' "$cache" "$key"
}

configure_and_build() { # configure_and_build PRESET [CMAKE TARGET...]
  local preset=$1 build=$root/build/$1
  shift
  mkdir -p "$build"
  # Another prefix means other libraries, another toolchain or both: nothing of the old configuration holds.
  if [ ! -f "$build/build.ninja" ] || [ "$(readlink "$build/dependencies")" != "$(dependency_prefix)" ]; then
    say "configuring $preset"
    # Through this link the linker is given paths relative to the build, which the program database records.
    rm -f "$build/build.ninja"
    ln -sfn "$(dependency_prefix)" "$build/dependencies"
    (cd "$root" && quietly "$build/configure.log" cmake --fresh --preset "$preset")
  fi
  say "building $preset"
  quietly "$build/build.log" cmake --build "$build" ${1:+--target "$@"}
}

# Wine without a display and without debug messages, in a prefix below build/.
wine_environment() { # wine_environment PREFIX
  export WINEPREFIX=$1 WINEDEBUG=-all WINEARCH=win64 WINEDLLOVERRIDES="mscoree=;mshtml="
  unset DISPLAY WAYLAND_DISPLAY
  mkdir -p "$(dirname "$WINEPREFIX")"
  if [ ! -f "$WINEPREFIX/system.reg" ]; then
    say "making a Wine prefix"
    quietly "$WINEPREFIX.log" wine wineboot --init
    wineserver -w 2>/dev/null || true
  fi
  # A persistent server saves each program the start of one. The services are started here, with no output to inherit,
  # because a caller that reads a program's output to its end would otherwise wait for them too.
  if wineserver --persistent=300 </dev/null >/dev/null 2>&1; then
    wine cmd /c exit </dev/null >/dev/null 2>&1 || true
  fi
}

# Makes a machine to run on, for script/under-wine; made again when demo/ or the tool has changed.
make_machine() { # make_machine NAME [OPTIONS OF machine.py...]
  local machine=$root/build/wine/$1 recipe
  shift
  export AGENTCLI_WINEPREFIX=$machine
  recipe=$(cat "$root"/demo/*.* ${1:+"${@: -1}"} 2>/dev/null | sha256sum)
  [ "$(cat "$machine.recipe" 2>/dev/null)" = "$recipe" ] && return
  say "making the machine $machine"
  [ ! -d "$machine" ] || WINEPREFIX=$machine wineserver -k 2>/dev/null || true
  rm -rf "$machine" "$machine.recipe"
  mkdir -p "$(dirname "$machine")"
  quietly "$machine.log" python3 "$root/demo/machine.py" "$machine" "$@"
  printf '%s\n' "$recipe" >"$machine.recipe"
}

# Our own C++, one path a line, relative to the root.
own_sources() {
  (cd "$root" && find . -path ./build -prune -o -type f \( -name '*.h' -o -name '*.cpp' \) -printf '%P\n' | sort)
}
