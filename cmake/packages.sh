# Sourced by ./run, ./test and .ci/run: makes sure that Debian packages are installed.
# Works as root, or with sudo.

# need PACKAGE...: installs the ones that are missing.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
      echo "missing packages: ${missing[*]} (run as root, or install sudo)" >&2
      return 1
    }
    as_root=(sudo)
  fi
  echo "installing: ${missing[*]}" >&2
  "${as_root[@]}" apt-get update -qq >&2 &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
      --no-install-recommends "${missing[@]}" >/dev/null
}

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libomniorb4-dev omniidl libace-dev libloki-dev
  libboost-dev libcli11-dev nlohmann-json3-dev libfmt-dev libspdlog-dev libsystemd-dev
  prometheus-cpp-dev libcivetweb-dev libssl-dev)
PACKAGING_PACKAGES=(dpkg-dev fakeroot file lintian debootstrap systemd)
TEST_PACKAGES=(libgtest-dev libgmock-dev omniorb-nameserver openssl tcl-combat chromium curl prometheus)
CLANG_PACKAGES=(clang libclang-rt-14-dev llvm)
BENCH_PACKAGES=(libbenchmark-dev redis-server nats-server)

# configure_and_build DIR [CMAKE_OPTION...]: builds the tree in DIR with all processors. The
# variable TARGETS may name what to build, instead of all. Several files are compiled as one, in a
# third of the time: libraries' headers are most of what a compiler reads here. Of what a debugger
# wants there are the lines.
configure_and_build() {
  local dir=$1 launcher=
  shift
  command -v ccache >/dev/null && launcher=ccache
  cmake -S "$TOP" -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" \
    -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=8 \
    -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" "$@" >"$dir.cmake.log" 2>&1 || {
    cat "$dir.cmake.log" >&2
    return 1
  }
  rm -f "$dir.cmake.log"
  # shellcheck disable=SC2086
  cmake --build "$dir" ${TARGETS:+--target $TARGETS}
}
