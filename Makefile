# The user's entry points. CMake does the building; these targets pick the
# build folder and flags.
#   make            Release build: build/sonderlark and build/sonderlark-sim
#   make test       install what is missing, ASan+UBSan build, every test
#   make test-release  the same tests on a Release build (the tool runs several times faster)
#   make demo       a one-shot run against a simulated array, no hardware needed
#   make bench      Release benchmarks: chain, one-shot hour, live throughput, latency
#   make fuzz       both fuzz targets for FUZZ_SECONDS each (clang)
#   make test-arm   cross build for ARCH (arm64 or armhf, default arm64) and its tests under qemu
#   make bench-arm  the benchmarks of that build under qemu (emulated timings, not a board's)
#   make compare-arch  aarch64 and armhf builds under qemu give the native build's bytes
#   make package    this machine's .deb in build-package/, checked by lintian;
#                   ARCH="arm64 armhf" (a list) cross-builds those instead
#   make test-package  install this machine's package with apt, use it, purge it (root)
#   make install    PREFIX=/usr/local by default; make uninstall removes it again

PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60
ARCH ?= arm64
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all build test test-release test-arm bench-arm compare-arch package test-package demo bench fuzz install uninstall deps clean

all: build

deps:
	@scripts/install-deps build

build: deps
	cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DSONDERLARK_TESTS=OFF >/dev/null
	cmake --build build -j $(JOBS)

test:
	@scripts/install-deps test
	cmake -S . -B build-test -DCMAKE_BUILD_TYPE=Debug -DSONDERLARK_SANITIZE=ON >/dev/null
	cmake --build build-test -j $(JOBS)
	cd build-test && ctest --output-on-failure -j $(JOBS)

test-release:
	@scripts/install-deps test
	cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release >/dev/null
	cmake --build build-release -j $(JOBS)
	cd build-release && ctest --output-on-failure -j $(JOBS)

test-arm:
	scripts/arm test $(ARCH)

bench-arm:
	scripts/arm bench $(ARCH)

compare-arch:
	scripts/compare-arch

package:
	scripts/package $(if $(filter command line,$(origin ARCH)),$(ARCH))

test-package: package
	tests/install_test.sh package build-package/sonderlark_*_$$(dpkg --print-architecture).deb

demo: build
	@scripts/install-deps demo
	scripts/demo

bench:
	@scripts/install-deps bench
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DSONDERLARK_TESTS=OFF -DSONDERLARK_BENCH=ON >/dev/null
	cmake --build build-bench -j $(JOBS)
	build-bench/bench/sonderlark_bench
	python3 bench/one_shot_long.py build-bench
	python3 bench/live_bench.py build-bench 5
	python3 bench/latency.py build-bench 256 1024 4096

fuzz:
	@scripts/install-deps fuzz
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSONDERLARK_TESTS=OFF -DSONDERLARK_FUZZ=ON >/dev/null
	cmake --build build-fuzz -j $(JOBS)
	scripts/run-fuzz build-fuzz $(FUZZ_SECONDS)

install: build
	cmake --install build --prefix "$(PREFIX)"

uninstall:
	@if [ -f build/install_manifest.txt ]; then xargs -d '\n' rm -fv < build/install_manifest.txt; \
	else echo "nothing installed from this build (no build/install_manifest.txt)"; fi

clean:
	rm -rf build build-test build-release build-bench build-fuzz build-arm64 build-armhf build-arm64-bench build-armhf-bench \
	  build-compare build-compare-arch build-package
