#!/usr/bin/env bash
# Usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
sim_pid=
cleanup() {
  [[ -n $sim_pid ]] && kill "$sim_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
for f in include/tovapi/libtovapi.h include/tovlib/tovcon.h \
         lib/cmake/tovapi/tovapiConfig.cmake lib/pkgconfig/tovapi.pc \
         bin/tovsim share/man/man1/tovsim.1 bin/tovexporter \
         share/man/man1/tovexporter.1 lib/systemd/system/tovexporter.service; do
  [[ -e $prefix/$f ]] || { echo "missing after install: $f"; exit 1; }
done
soname=$(objdump -p "$prefix"/lib/libtovapi.so | awk '/SONAME/ {print $2}')
[[ $soname == libtovapi.so.0 ]] || { echo "unexpected SONAME: $soname"; exit 1; }

# With CMake: find_package(tovapi) gives tovapi::tovapi.
cmake -S "$src/examples" -B "$work/cmake-build" -G Ninja \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

# With pkg-config.
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
g++ -std=c++17 "$src/examples/bounce.cpp" -o "$work/bounce-pc" \
    $(pkg-config --cflags --libs tovapi) -Wl,-rpath,"$prefix/lib"

# Both programs bounce a service of the installed simulator.
"$prefix/bin/tovsim" --config "$src/examples/tovsim-demo.json" \
    --listen 127.0.0.1 --port 0 --udp-port 0 --max-lifetime 60 \
    --ready-file "$work/ready" 2>"$work/sim.log" &
sim_pid=$!
for _ in $(seq 100); do [[ -s $work/ready ]] && break; sleep 0.05; done
port=$(cat "$work/ready")
for prog in "$work/cmake-build/bounce" "$work/bounce-pc"; do
  out=$(echo demo-password | LD_LIBRARY_PATH="$prefix/lib" \
        "$prog" 127.0.0.1 "$port" 0 demo 2>/dev/null)
  [[ $out == "service 0 (web) bounced on 127.0.0.1:$port" ]] ||
    { echo "$prog said: $out"; exit 1; }
done
echo "installed package: CMake and pkg-config builds bounce a service"
