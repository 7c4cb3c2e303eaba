# Short names for the usual jobs. Each first installs the Debian packages that are missing
# (packages.txt); with none missing that takes a moment and no network.

JOBS ?= $(shell nproc)

ROOMS := yx krym compressors kelm host tools integrations tests fuzz bench examples docs
OWN_FILES = find $(wildcard $(ROOMS)) -name '*.h' -o -name '*.cpp'
ANALYZER_CHECKS := clang-analyzer-core.*,clang-analyzer-cplusplus.*,clang-analyzer-deadcode.*

.PHONY: all demo test bench package package-test cluster-packages cluster-test symbols sanitize tsan fuzz fuzz-corpus soak format format-check lint docs format-dumps install-packages clean

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

# With SANITIZE_SHARDS above 1, only the part of the tests of each program whose turn it is with this
# commit.
SANITIZE_SHARDS ?= 1
SANITIZE_SHARD ?= $(shell echo $$(($$(git rev-list --count HEAD) % $(SANITIZE_SHARDS))))
sanitize: install-packages
	cmake --preset sanitize
	cmake --build --preset sanitize -j $(JOBS)
	GTEST_TOTAL_SHARDS=$(SANITIZE_SHARDS) GTEST_SHARD_INDEX=$(SANITIZE_SHARD) \
	    ctest --preset sanitize -j $(JOBS)

# Looks for data races in what has threads: the grain pipeline, and the commands that use it.
tsan: install-packages
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS)

# Builds the fuzz targets and runs each, or those in FUZZ_TARGETS, on its seeds and then for
# FUZZ_SECONDS, two at a time.
FUZZ_SECONDS ?= 20
FUZZ_TARGETS ?=
fuzz: install-packages
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)
	fuzz/run.sh build/fuzz $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# Writes the seeds of the fuzz targets anew; inputs that were found stay.
fuzz-corpus: all
	build/release/bin/fuzz/make_corpus fuzz/corpus

# Takes ten random chains of disks of other software for each of SOAK_CHAIN_ROUNDS. Then kills some
# 24 imports and conversions for each of SOAK_KILL_ROUNDS, and looks at what they left. Then runs
# histories of writing, killing and reopening on every kind of disk for SOAK_SECONDS, in the folder
# for temporary files. SOAK_ARGS may be "--seed <n>". Before that, forty damaged disks are salvaged
# for each of SOAK_SALVAGE_ROUNDS. And three servers are backed up for four weeks for each of
# SOAK_YEAR_ROUNDS, in the year that SOAK_YEAR_SEED makes.
SOAK_CHAIN_ROUNDS ?= 200
SOAK_KILL_ROUNDS ?= 50
SOAK_SALVAGE_ROUNDS ?= 125
SOAK_YEAR_ROUNDS ?= 26
SOAK_YEAR_SEED ?= 20310102
SOAK_SECONDS ?= 60
SOAK_ARGS ?=
soak: all
	KELM_MODEL_ROUNDS=$(SOAK_CHAIN_ROUNDS) build/release/bin/test_host_transfer \
	    --gtest_filter='ForeignChainModel.*'
	KELM_MODEL_ROUNDS=$(SOAK_SALVAGE_ROUNDS) build/release/bin/test_host_transfer \
	    --gtest_filter='SalvageModel.*'
	KELM_MODEL_ROUNDS=$(SOAK_KILL_ROUNDS) build/release/bin/test_endtoend \
	    --gtest_filter='Unfinished.*'
	KELM_MODEL_ROUNDS=$(SOAK_YEAR_ROUNDS) KELM_YEAR_SEED=$(SOAK_YEAR_SEED) \
	    build/release/bin/test_year
	build/release/bin/helpers/soak/soak --seconds $(SOAK_SECONDS) $(SOAK_ARGS)

# Measures everything beside its limit and writes one report. BENCH_WORK is a folder on the disk
# whose speed matters, with 8 GB free; BENCH_CONTENT one with files for the image of a file system.
REPORT ?= build/bench/report.md
BENCH_WORK ?= /var/tmp
BENCH_CONTENT ?= /usr/share
bench: install-packages
	cmake --preset bench
	cmake --build --preset bench -j $(JOBS)
	bench/run.sh build/bench "$(REPORT)" "$(BENCH_WORK)" "$(BENCH_CONTENT)"

# Lists anew what the libraries export; a test compares them with the lists.
symbols: all
	tests/structure/symbols/check_symbols.sh --update build/release/lib

# Debian packages, in build/package/packages.
PACKAGES := build/package/packages
package: install-packages
	dh_clean --dirs-only
	rm -rf $(PACKAGES) debian/debhelper-build-stamp
	mkdir -p $(PACKAGES)
	DEB_BUILD_OPTIONS=parallel=$(JOBS) KELM_PACKAGES=$(CURDIR)/$(PACKAGES) \
	    dpkg-buildpackage --build=binary --no-sign --no-pre-clean --no-check-builddeps \
	    --buildinfo-option=-u$(PACKAGES) --buildinfo-file=$(PACKAGES)/kelm.buildinfo \
	    --changes-option=-u$(PACKAGES) --changes-file=$(PACKAGES)/kelm.changes
	dh_clean --dirs-only
	.ci/check_packages $(PACKAGES)

# Installs, uses, upgrades and purges the packages that `make package` has made, in a fresh system from
# the mirror of apt. Says so where that cannot be, which is no error. Upgrades from the packages in
# LAST_PACKAGES, or from likenesses of those of the last version.
LAST_PACKAGES ?=
package-test: install-packages
	.ci/try_packages $(PACKAGES) $(LAST_PACKAGES) || test $$? = 77

# Tests disks on a Ceph cluster, which is started for it on this machine. Its servers are packages of
# their own (tests/cluster/packages.txt); where they are missing, nothing is tested, and that is said.
# Those who want one disk at once meet in 200 rounds, five times KELM_MODEL_ROUNDS.
cluster-packages:
	@.ci/install_packages tests/cluster/packages.txt

cluster-test: install-packages cluster-packages
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target test_cluster test_s3
	KELM_MODEL_ROUNDS=40 tests/cluster/cluster run ctest --preset release -R '^test_(cluster|s3)$$' || test $$? = 77

format: install-packages
	$(OWN_FILES) | xargs clang-format -i

format-check: install-packages
	$(OWN_FILES) | xargs clang-format --dry-run --Werror

# Reading headers takes most of the time, so the linter looks at batches of sources, whose headers are
# read once. For the analyzer the sources of a batch are headers, so it is told to look at those too.
# Its thorough mode (LINT_ANALYZER=deep) takes three times as long and follows calls further.
LINT_ANALYZER ?= shallow
lint: install-packages
	cmake --preset lint
	.ci/list_sources build/lint | xargs run-clang-tidy -p build/lint -quiet -j $(JOBS) \
		-checks='-bugprone-suspicious-include' \
		-extra-arg=-Xclang -extra-arg=-analyzer-opt-analyze-headers \
		-extra-arg=-Xclang -extra-arg=-analyzer-config -extra-arg=-Xclang -extra-arg=mode=$(LINT_ANALYZER)

install-packages:
	@.ci/install_packages

# The API reference, in build/docs/html. Fails if a public declaration has no contract.
docs: install-packages
	mkdir -p build/docs
	doxygen Doxyfile

# Makes the dumps of docs/file-format.md again.
format-dumps: install-packages
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target format_dumps

clean:
	rm -rf build
