# Short names for the usual jobs. Each first installs the Debian packages that are missing
# (packages.txt); with none missing that takes a moment and no network.

JOBS ?= $(shell nproc)

ROOMS := yx krym compressors kelm host tools integrations tests fuzz bench examples
OWN_FILES = find $(wildcard $(ROOMS)) -name '*.h' -o -name '*.cpp'
# Everything but the tests and benchmarks, where the macros of their frameworks set off most checks.
LINT_FILES = find $(wildcard $(filter-out tests bench,$(ROOMS))) -name '*.cpp'

.PHONY: all demo test bench sanitize fuzz format format-check lint install-packages clean

all: install-packages
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

# Shows the program at work on a small disk.
demo: all
	@test -x tools/demo.sh || { echo "tools/demo.sh is missing or not executable" >&2; exit 1; }
	tools/demo.sh build/release

# Tests what users get: the optimised build. Assertions are on in `make sanitize`, which runs the
# same tests again.
test: all
	ctest --preset release -j $(JOBS)

sanitize: install-packages
	cmake --preset sanitize
	cmake --build --preset sanitize -j $(JOBS)
	ctest --preset sanitize -j $(JOBS)

# Builds the fuzz targets and runs each on its seeds and then for FUZZ_SECONDS.
FUZZ_SECONDS ?= 20
fuzz: install-packages
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	fuzz/run.sh build/fuzz $(FUZZ_SECONDS)

# Measures everything beside its limit and writes one report. BENCH_WORK is a folder on the disk
# whose speed matters, with 8 GB free; BENCH_CONTENT one with files for the image of a file system.
REPORT ?= build/bench/report.md
BENCH_WORK ?= /var/tmp
BENCH_CONTENT ?= /usr/share
bench: install-packages
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bench/run.sh build/bench "$(REPORT)" "$(BENCH_WORK)" "$(BENCH_CONTENT)"

format: install-packages
	$(OWN_FILES) | xargs clang-format -i

format-check: install-packages
	$(OWN_FILES) | xargs clang-format --dry-run --Werror

lint: install-packages
	cmake --preset lint
	$(LINT_FILES) | sed 's|^|^$(CURDIR)/|; s|$$|$$|' | xargs run-clang-tidy -p build/lint -quiet -j $(JOBS)

install-packages:
	@.ci/install_packages

clean:
	rm -rf build
