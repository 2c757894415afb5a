# Entry points for users and CI. Two build directories: build/sys against
# Debian 12's FFmpeg 5.1, build/ff7 against FFmpeg 7.1 built from Debian 13's
# sources into $(FF7_PREFIX). `make test` also runs the suite under the
# sanitizers (build/asan) and each fuzz target briefly (build/fuzz).

FF7_PREFIX ?= $(HOME)/.cache/ff7/prefix
JOBS ?= $(shell nproc)
# Seconds per fuzz target: `make fuzz`, and the short pass of `make test`.
FUZZ_SECONDS ?= 180
FUZZ_TEST_SECONDS ?= 20

.PHONY: all build build-ff7 build-asan build-fuzz deps ffmpeg7 test fuzz demo bench clean

all: build

deps:
	@bash scripts/deps.sh

build/sys/build.ninja:
	cmake -S . -B build/sys -G Ninja

build: build/sys/build.ninja
	ninja -C build/sys -j$(JOBS)

ffmpeg7: deps
	@FF7_PREFIX=$(FF7_PREFIX) bash scripts/build-ffmpeg7.sh

build/ff7/build.ninja:
	PKG_CONFIG_PATH=$(FF7_PREFIX)/lib/pkgconfig cmake -S . -B build/ff7 -G Ninja

build-ff7: ffmpeg7 build/ff7/build.ninja
	ninja -C build/ff7 -j$(JOBS)

# build/asan: everything under AddressSanitizer and UndefinedBehaviorSanitizer.
build/asan/build.ninja:
	cmake -S . -B build/asan -G Ninja -DPELVANE_SANITIZE=ON

build-asan: build/asan/build.ninja
	ninja -C build/asan -j$(JOBS)

# build/fuzz: the libFuzzer targets of fuzz/, built with clang.
build/fuzz/build.ninja:
	CC=clang-14 CXX=clang++-14 cmake -S fuzz -B build/fuzz -G Ninja

build-fuzz: build/fuzz/build.ninja
	ninja -C build/fuzz -j$(JOBS)

test: deps
	@$(MAKE) --no-print-directory build build-ff7 build-asan build-fuzz
	@s=0; bash scripts/run-tests.sh build/sys build/ff7 build/asan || s=1; \
	  FUZZ_SECONDS=$(FUZZ_TEST_SECONDS) bash scripts/run-fuzz.sh build/fuzz || s=1; exit $$s

# The developer loop, about a minute warm: the system-FFmpeg build, the unit
# tests and the integration tests labelled quick in tests/CMakeLists.txt.
.PHONY: check format check-format
check: deps
	@$(MAKE) --no-print-directory build
	ctest --test-dir build/sys -L '^(unit|quick)$$' --output-on-failure -j2

# format rewrites the C++ sources to .clang-format; check-format only checks.
format:
	@bash scripts/check-format.sh --fix

check-format:
	@bash scripts/check-format.sh

fuzz: deps
	@$(MAKE) --no-print-directory build-fuzz
	@FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/run-fuzz.sh build/fuzz

demo: deps
	@$(MAKE) --no-print-directory build
	@bash scripts/demo.sh build/sys

bench: deps
	@$(MAKE) --no-print-directory build
	@bash bench/run.sh build/sys

clean:
	rm -rf build
