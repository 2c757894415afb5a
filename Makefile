# Entry points for users and CI. Two build directories: build/sys against
# Debian 12's FFmpeg 5.1, build/ff7 against FFmpeg 7.1 built from Debian 13's
# sources into $(FF7_PREFIX).

FF7_PREFIX ?= $(HOME)/.cache/ff7/prefix
JOBS ?= $(shell nproc)

.PHONY: all build build-ff7 deps ffmpeg7 test demo bench clean

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

test: deps
	@$(MAKE) --no-print-directory build build-ff7
	@bash scripts/run-tests.sh build/sys build/ff7

demo: deps
	@$(MAKE) --no-print-directory build
	@bash scripts/demo.sh build/sys

bench: deps
	@$(MAKE) --no-print-directory build
	@bash bench/run.sh build/sys

clean:
	rm -rf build
