# The two commands of the README: make run, make test.
, := ,
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_TYPE ?= RelWithDebInfo

.PHONY: all bootstrap build quiet-build run test test-asan test-tsan fuzz bench deb clean

all: build

bootstrap:
	@scripts/bootstrap

# $(1): build directory, $(2): extra CMake arguments
configure_and_build = cmake -S . -B $(1) -DCMAKE_BUILD_TYPE=$(CMAKE_TYPE) $(2) >/dev/null && \
    cmake --build $(1) -j $(JOBS)

build: bootstrap
	$(call configure_and_build,$(BUILD),)

# The same build with its output kept in $(BUILD)/build.log and shown only
# when it fails, so that what `make run` prints first is the board.
quiet-build: bootstrap
	@mkdir -p $(BUILD)
	@echo "make: building in $(BUILD)/ (output in $(BUILD)/build.log)"
	@( $(call configure_and_build,$(BUILD),) ) >$(BUILD)/build.log 2>&1 || \
	    { tail -n 40 $(BUILD)/build.log; \
	      echo "make: the build failed; the whole output is in $(BUILD)/build.log"; \
	      exit 1; }

# The daemon on a simulated two-pipe base board, in the foreground, its log
# on the terminal; Ctrl-C stops it and removes the board.
run: quiet-build
	@$(BUILD)/bin/lhsim run --board base2 -- $(abspath $(BUILD))/bin/pellin_mgr

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-asan: bootstrap
	$(call configure_and_build,$(BUILD)-asan,-DPELLIN_SANITIZE=address$(,)undefined)
	ctest --test-dir $(BUILD)-asan --output-on-failure -j $(JOBS)

test-tsan: bootstrap
	$(call configure_and_build,$(BUILD)-tsan,-DPELLIN_SANITIZE=thread)
	ctest --test-dir $(BUILD)-tsan --output-on-failure -j $(JOBS)

# The frame reader and the dispatcher under libFuzzer, with AddressSanitizer
# and UBSan, for FUZZ_SECONDS; what it finds stays in $(BUILD)-fuzz/crashes.
FUZZ_SECONDS ?= 60
fuzz: bootstrap
	cmake -S . -B $(BUILD)-fuzz -DCMAKE_BUILD_TYPE=$(CMAKE_TYPE) -DCMAKE_CXX_COMPILER=clang++ \
	    -DPELLIN_FUZZ=ON -DPELLIN_SANITIZE=fuzzer-no-link$(,)address$(,)undefined >/dev/null
	cmake --build $(BUILD)-fuzz -j $(JOBS) --target ipc_fuzz
	@mkdir -p $(BUILD)-fuzz/corpus $(BUILD)-fuzz/crashes
	$(BUILD)-fuzz/tests/ipc_fuzz -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=1024 \
	    -artifact_prefix=$(BUILD)-fuzz/crashes/ $(BUILD)-fuzz/corpus

# The poll-cycle benchmark: the register accesses of one cycle (counted
# by the model build), then in one run the cycle beside the floor of as
# many plain reads, and the register dump beside one fwrite of its bytes;
# then IPC round trips against the daemon beside their raw-socket floor.
bench: build
	@accesses=$$($(BUILD)/bench/bench_poll_accesses | awk '{ print $$2 }') && \
	$(BUILD)/bench/bench_poll_cycle $$accesses
	@$(BUILD)/bench/bench_ipc

# The Debian package, built by dpkg-buildpackage from a copy of the tree in
# $(BUILD)-deb/src and checked by lintian; the .deb lands in $(BUILD)-deb/.
deb: bootstrap
	JOBS=$(JOBS) packaging/build_deb.sh . $(BUILD)-deb --lintian

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-fuzz $(BUILD)-deb
