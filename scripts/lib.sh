# Shared by the scripts beside it; sourced, never run.
# Everything that a fresh Debian 12 machine lacks is installed here, and nowhere else.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cache=${XDG_CACHE_HOME:-$HOME/.cache}/quillmon
started=$SECONDS

say() { printf '[%3ds] %s\n' $((SECONDS - started)) "$*"; }
die() { printf '%s: %s\n' "$(basename "$0")" "$*" >&2; exit 1; }

# quietly LOG COMMAND...: runs COMMAND with its output in LOG; on failure shows the end of LOG.
quietly() {
  local log=$1; shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 </dev/null || { tail -n 40 "$log" >&2; die "'$*' failed; the whole log is $log"; }
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"
  elif command -v sudo >/dev/null; then sudo "$@"
  else die "must be root, or have sudo, to install: ${missing[*]}"
  fi
}

# install_packages NAME...: installs the Debian packages that are not there yet.
install_packages() {
  command -v dpkg-query >/dev/null || die "this needs Debian 12 or one of its derivatives (no dpkg here)"
  local name; missing=()
  for name in "$@"; do
    dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null | grep -q '^installed$' || missing+=("$name")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${#missing[@]} Debian packages: ${missing[*]}"
  quietly "$cache/log/apt-update.log" as_root apt-get update
  quietly "$cache/log/apt-install.log" \
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

# What the library is cross-built with, what the programs are built of and run on, and the rest.
cross_packages=(ca-certificates cmake ninja-build g++-mingw-w64-x86-64-posix dpkg-dev xz-utils)
program_packages=(
  wine64 googletest libfmt-dev libasio-dev libcli11-dev nlohmann-json3-dev python3
)
build_packages=(
  "${cross_packages[@]}" "${program_packages[@]}" g++ make ccache git libxerces-c-dev
)
test_packages=(
  clang-14 clang-format-14 clang-tidy-14 default-jdk-headless libbenchmark-dev libclang-rt-14-dev
  llvm-14 openssl python3-pytest python3-yaml softhsm2 valgrind
)
package_packages=(libengine-pkcs11-openssl msitools osslsigncode wixl)
soak_packages=(gnuplot-nox)

# Prometheus and its node exporter, for the tests and the demo of a fleet: unpacked and linked as
# build/deps/prometheus. Installing them would start them as services of this machine.
unpack_prometheus() {
  local prefix=$cache/prometheus
  mkdir -p "$root/build/deps"
  ln -sfn "$prefix" "$root/build/deps/prometheus"
  [ -e "$prefix/.complete" ] && return
  local name work
  missing=(prometheus prometheus-node-exporter)
  say "fetching Debian packages, not to be installed: ${missing[*]}"
  quietly "$cache/log/apt-update.log" as_root apt-get update
  work=$(mktemp -d "${TMPDIR:-/tmp}/quillmon-prometheus.XXXXXX")
  (cd "$work" && quietly "$cache/log/prometheus.log" \
    apt-get -o APT::Sandbox::User=root download "${missing[@]}")
  rm -rf "$prefix"
  for name in "${missing[@]}"; do
    quietly "$cache/log/prometheus.log" dpkg-deb -x "$work/${name}_"*.deb "$prefix"
  done
  touch "$prefix/.complete"
  rm -rf "$work"
}

# The one version of the XML library that the product is linked with. Its mutexes are the platform's
# own: the compiler's standard ones keep their memory when they are destroyed, and the library makes
# new ones at each start.
xerces_version=3.2.4
xerces_options=(
  -DBUILD_SHARED_LIBS=OFF -Dnetwork=OFF -Dtranscoder=windows -Dmessage-loader=inmemory
  -Dmutex-manager=windows
  -DCMAKE_BUILD_TYPE=Release
)
# As cmake/Flags.cmake has them; the folder that it is built in stays out of the program.
xerces_flags='-fstack-protector-strong -D_FORTIFY_SOURCE=2 -ffile-prefix-map=@WORK@=.'
# Starting the library once per call is by design here: four of these make a start cheap and safe.
# The last one makes it convert on machines whose code page is UTF-8.
xerces_patches=(
  "$root/cmake/patches/xerces-c-charset-table.patch" "$root/cmake/patches/xerces-c-regex-ranges.patch"
  "$root/cmake/patches/xerces-c-schema-types.patch" "$root/cmake/patches/xerces-c-start-memory.patch"
  "$root/cmake/patches/xerces-c-conversion-flags.patch"
)

# The library that the product is linked with; and, to measure it by, the one as it is distributed.
build_xerces() { cross_build_xerces xerces "${xerces_patches[@]}"; }
build_distributed_xerces() { cross_build_xerces xerces-distributed; }

# cross_build_xerces LINK [PATCH...]: cross-builds Xerces-C once from the distribution's source
# package, keeps it in the cache by version and options, and links it as build/deps/LINK, where the
# toolchain file looks for it.
cross_build_xerces() {
  local link=$1 key xerces_prefix; shift
  key=$(printf '%s\n' "$xerces_version" "${xerces_options[@]}" "$xerces_flags" "with its papers" \
    "$(cat "$root/cmake/mingw-w64.cmake" "$@")" | sha256sum | cut -c1-16)
  xerces_prefix=$cache/xerces-$xerces_version-$key
  mkdir -p "$root/build/deps"
  ln -sfn "$xerces_prefix" "$root/build/deps/$link"
  [ -e "$xerces_prefix/.complete" ] && return
  say "building Xerces-C $xerces_version for Windows, once (one to two minutes)"
  local work; work=$(mktemp -d "${TMPDIR:-/tmp}/quillmon-xerces.XXXXXX")
  local xerces_source; unpack_xerces "$work" "$@"
  rm -rf "$xerces_prefix"
  quietly "$cache/log/xerces-configure.log" cmake -G Ninja -S "$xerces_source" -B "$work/build" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64.cmake" -DCMAKE_INSTALL_PREFIX="$xerces_prefix" \
    "${xerces_options[@]}" -DCMAKE_CXX_FLAGS="${xerces_flags//@WORK@/$work}"
  quietly "$cache/log/xerces-build.log" cmake --build "$work/build"
  quietly "$cache/log/xerces-install.log" cmake --install "$work/build"
  # For the packages' papers: its licence, where it came from, and what was changed.
  local papers=$xerces_prefix/share/doc/xerces-c
  mkdir -p "$papers"
  cp "$xerces_source"/{LICENSE,NOTICE} "$papers"
  cp "$work"/xerces-c_*.dsc "$papers/source.dsc"
  { grep -v '^#' "$xerces_source/debian/patches/series"; printf '%s\n' "${@##*/}"; } >"$papers/patches"
  touch "$xerces_prefix/.complete"
  rm -rf "$work"
}

# unpack_xerces DIR [PATCH...]: sets xerces_source to the folder in DIR with the patched source, without
# what nobody needs.
unpack_xerces() {
  local work=$1 patch; shift
  fetch_xerces_source "$work"
  xerces_source=$(echo "$work"/xerces-c-"$xerces_version"*)
  [ -e "$xerces_source/CMakeLists.txt" ] ||
    die "Debian's source package xerces-c is not version $xerces_version"
  for patch in "$@"; do
    quietly "$cache/log/xerces-patch.log" patch -d "$xerces_source" -p1 -i "$patch"
  done
  sed -i '/add_subdirectory(\(doc\|tests\|samples\))/d' "$xerces_source/CMakeLists.txt"
}

# fetch_xerces_source DIR: the source package with the distribution's patches applied, through a
# throw-away APT configuration made from the machine's own list of sources.
fetch_xerces_source() {
  local work=$1 apt=$1/apt
  mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache/archives/partial"
  local file
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -e "$file" ] && sed -nE 's/^deb(-src)? /deb-src /p' "$file" | sort -u >"$apt/parts/$(basename "$file" .list).list"
  done
  for file in /etc/apt/sources.list.d/*.sources; do
    [ -e "$file" ] && sed -E 's/^Types:.*/Types: deb-src/' "$file" >"$apt/parts/$(basename "$file")"
  done
  local options=(-o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$apt/parts"
    -o Dir::State::lists="$apt/lists" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User=root)
  quietly "$cache/log/xerces-source-update.log" apt-get "${options[@]}" update
  (cd "$work" && quietly "$cache/log/xerces-source.log" apt-get "${options[@]}" source --download-only xerces-c)
  (cd "$work" && quietly "$cache/log/xerces-unpack.log" dpkg-source -x xerces-c_*.dsc)
}

# prepare PACKAGE...: installs what the library is built with, and the packages while it is built.
prepare() {
  install_packages "${cross_packages[@]}"
  install_packages "$@" &
  local rest=$!
  build_xerces
  wait $rest
}

# Ends where the programs of the native flavours could not run: see tests/fixed.
require_addresses() {
  local bits; bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null) || return 0
  [ "$bits" -le 28 ] || setarch -R true 2>/dev/null ||
    die "the kernel makes $bits bits of an address random, more than the sanitizers bear, and refuses setarch -R:" \
      "allow that (docker run --security-opt seccomp=unconfined), or set vm.mmap_rnd_bits to 28"
}

# build PRESET [TARGET...]: configures and builds one flavour.
build() {
  local preset=$1; shift
  case $preset in host*) require_addresses ;; esac
  say "building the $preset flavour (its first build takes a minute or two)"
  [ -e "$root/build/$preset/build.ninja" ] ||
    quietly "$root/build/log/configure-$preset.log" cmake --preset "$preset"
  quietly "$root/build/log/build-$preset.log" \
    cmake --build --preset "$preset" -j"$(nproc)" ${1:+--target "$@"}
}

# stop_wine PREFIX: ends every Windows program of that prefix.
stop_wine() {
  QUILLMON_WINEPREFIX=$(realpath -m "$1") "$root/tests/wine" --end
}
