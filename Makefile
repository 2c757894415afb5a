# Entry points for users and CI. Two build directories: build/sys against
# Debian 12's FFmpeg 5.1, build/static with a trimmed FFmpeg 7.1 built from
# Debian 13's sources into $(FF7_PREFIX) and linked in statically. `make test`
# checks the C++ layout (.clang-format), runs the suite in both and under the
# sanitizers (build/asan), and each fuzz target briefly (build/fuzz).

FF7_PREFIX ?= $(HOME)/.cache/ff7/static
JOBS ?= $(shell nproc)
# Seconds per fuzz target: `make fuzz`, and the short pass of `make test`.
FUZZ_SECONDS ?= 180
FUZZ_TEST_SECONDS ?= 10

.PHONY: all build static build-asan build-fuzz deps ffmpeg7 test fuzz demo bench clean

all: build

deps:
	@bash scripts/deps.sh

build/sys/build.ninja:
	cmake -S . -B build/sys -G Ninja

build: build/sys/build.ninja
	ninja -C build/sys -j$(JOBS)

# build/static: FFmpeg 7.1 trimmed to what pelvane relays, linked in statically.
ffmpeg7: deps
	@FF7_PREFIX=$(FF7_PREFIX) bash scripts/build-ffmpeg7.sh

build/static/build.ninja:
	PKG_CONFIG_PATH=$(FF7_PREFIX)/lib/pkgconfig cmake -S . -B build/static -G Ninja -DPELVANE_STATIC_FFMPEG=ON

static: ffmpeg7 build/static/build.ninja
	ninja -C build/static -j$(JOBS)

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
	@$(MAKE) --no-print-directory build static build-asan build-fuzz
	@s=0; bash scripts/check-format.sh || s=1; \
	  bash scripts/run-tests.sh build/sys build/static build/asan || s=1; \
	  FUZZ_SECONDS=$(FUZZ_TEST_SECONDS) bash scripts/run-fuzz.sh build/fuzz || s=1; exit $$s

# The developer loop, about a minute warm: the system-FFmpeg build, the unit
# tests and the integration tests labelled quick in tests/CMakeLists.txt.
.PHONY: check format check-format mutants
check: deps
	@$(MAKE) --no-print-directory build
	ctest --test-dir build/sys -L '^(unit|quick)$$' --output-on-failure -j2

# format rewrites the C++ sources to .clang-format; check-format only checks.
format:
	@bash scripts/check-format.sh --fix

check-format:
	@bash scripts/check-format.sh

# Mutation testing, not part of `make test`: each fault of scripts/mutants.txt
# in turn, built in a copy of the tree under build/mutants, against the suite
# (MUTANTS=id1,id2 for a subset).
mutants: deps
	@bash scripts/mutants.sh

fuzz: deps
	@$(MAKE) --no-print-directory build-fuzz
	@FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/run-fuzz.sh build/fuzz

demo: deps
	@$(MAKE) --no-print-directory build
	@bash scripts/demo.sh build/sys

bench: deps
	@$(MAKE) --no-print-directory build static
	@bash bench/run.sh build/sys build/static

clean:
	rm -rf build

# Install and package from build/dist (the programs alone, no tests):
# `make install` (PREFIX, default /usr/local; DESTDIR for a staging root) and
# `make deb` (build/dist/pelvane_<version>-1_<arch>.deb).
PREFIX ?= /usr/local
.PHONY: build-dist install deb

# Debian's hardening flags (fortify, stack protector, relro, bind-now).
DIST_FLAGS = DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get

build/dist/build.ninja:
	CFLAGS="$$($(DIST_FLAGS) CFLAGS) $$($(DIST_FLAGS) CPPFLAGS)" \
	  CXXFLAGS="$$($(DIST_FLAGS) CXXFLAGS) $$($(DIST_FLAGS) CPPFLAGS)" LDFLAGS="$$($(DIST_FLAGS) LDFLAGS)" \
	  cmake -S . -B build/dist -G Ninja -DBUILD_TESTING=OFF

build-dist: build/dist/build.ninja
	ninja -C build/dist -j$(JOBS)

install: build-dist
	DESTDIR=$(DESTDIR) cmake --install build/dist --prefix $(PREFIX)

deb: build-dist
	cd build/dist && cpack -G DEB
