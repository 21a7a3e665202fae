# corvalin: the front door.
#
#   make            build everything (emulated kernel, driver, library, tools)
#   make test       install what is missing, build with ASan+UBSan, run all tests
#   make tsan       ThreadSanitizer build of the concurrency suites, and run them
#   make demo       the backup program in the emulated kernel: a full backup
#                   and two incrementals of a partition in use, restores, verify
#   make module KDIR=/path/to/linux-2.6.27   build corvalin.ko for a real kernel
#   make vmtest     boot a real 2.6.27 kernel in QEMU and test the real module
#   make bench      benchmarks (plain optimised build)
#   make vmbench    the backup benchmarks on a real 2.6.27 kernel in QEMU
#   make vmbootloop boot that kernel BOOTS (50) times: every boot must speak
#   make fuzz       the command-sequence fuzzer (libFuzzer, clang, ASan+UBSan)
#                   for FUZZ_SECONDS (600); make fuzz-regress runs its corpus

BUILD    ?= build
JOBS     ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_GEN := $(shell command -v ninja >/dev/null 2>&1 && echo -G Ninja)

.PHONY: all deps test tsan demo module vmtest bench vmbench vmbootloop fuzz fuzz-build fuzz-regress clean

all: $(BUILD)/asan/CMakeCache.txt
	cmake --build $(BUILD)/asan -j $(JOBS)

deps:
	@scripts/install-deps.sh host

$(BUILD)/asan/CMakeCache.txt:
	@scripts/install-deps.sh host
	cmake -S . -B $(BUILD)/asan $(CMAKE_GEN) -DCORVALIN_SANITIZER=address,undefined

$(BUILD)/tsan/CMakeCache.txt:
	@scripts/install-deps.sh host
	cmake -S . -B $(BUILD)/tsan $(CMAKE_GEN) -DCORVALIN_SANITIZER=thread

$(BUILD)/plain/CMakeCache.txt:
	@scripts/install-deps.sh host
	cmake -S . -B $(BUILD)/plain $(CMAKE_GEN) -DCORVALIN_SANITIZER= -DCMAKE_BUILD_TYPE=Release

test: $(BUILD)/asan/CMakeCache.txt
	cmake --build $(BUILD)/asan -j $(JOBS)
	cd $(BUILD)/asan && ctest --output-on-failure -j $(JOBS) --timeout 300

tsan: $(BUILD)/tsan/CMakeCache.txt
	cmake --build $(BUILD)/tsan -j $(JOBS)
	cd $(BUILD)/tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/tsan.supp" \
	  ctest --output-on-failure -j $(JOBS) -L concurrency --timeout 600

demo: $(BUILD)/plain/CMakeCache.txt
	cmake --build $(BUILD)/plain -j $(JOBS) --target corvalin
	$(BUILD)/plain/tools/corvalin demo

# corvalin.ko with the kernel's own flags, held to our rules: no compiler
# warning in our sources, no symbol 2.6.27 does not export (modpost), a
# description and the tree's vermagic (modinfo).  Built from a copy of the
# sources in $(BUILD)/vm/module-corvalin; the result is
# $(BUILD)/vm/modules/corvalin.ko.  vm/build-kernel.sh prepares a tree at
# $(BUILD)/vm/linux-2.6.27.
module:
	@test -n "$(KDIR)" || { echo "make module: set KDIR to a configured and built 2.6.27 tree (vm/build-kernel.sh makes $(BUILD)/vm/linux-2.6.27)" >&2; exit 2; }
	CORVALIN_BUILD=$(abspath $(BUILD)) KDIR=$(abspath $(KDIR)) vm/build-module.sh corvalin

# The boot test: the real module on a real 2.6.27 kernel under QEMU (TCG),
# compared line by line with the same scenario in the emulated kernel.
vmtest:
	@scripts/install-deps.sh vm
	CORVALIN_BUILD=$(abspath $(BUILD)) vm/vmtest.sh

bench: $(BUILD)/plain/CMakeCache.txt
	cmake --build $(BUILD)/plain -j $(JOBS)
	@for b in $(BUILD)/plain/bench/bench_*; do [ -x "$$b" ] && "$$b"; done; true

# The backup benchmarks of bench/ on the real kernel: the boot test's
# kernel and module, a guest of their own (vm/bench), figures printed.
vmbench:
	@scripts/install-deps.sh vm
	CORVALIN_BUILD=$(abspath $(BUILD)) vm/vmbench.sh

# Boots the boot test's kernel BOOTS times (50), each until /init's first
# line: fails if any boot stays silent.
BOOTS ?= 50
vmbootloop:
	@scripts/install-deps.sh vm
	CORVALIN_BUILD=$(abspath $(BUILD)) vm/bootloop.sh $(BOOTS)

# The command-sequence fuzzer (fuzz/, docs/TESTING.md): libFuzzer over the
# driver in the emulated kernel, built by clang with ASan and UBSan in
# $(BUILD)/fuzz.  make fuzz runs for FUZZ_SECONDS from the committed seeds
# and what earlier runs kept ($(BUILD)/fuzz/corpus), going on after a
# finding (FUZZ_FORK=1; 0 stops at the first); findings are written to
# $(BUILD)/fuzz/artifacts/ and make the target fail.  FUZZ_FLAGS adds
# libFuzzer flags.  make fuzz-regress runs every committed input once.
FUZZ_SECONDS ?= 600
FUZZ_FORK    ?= 1
FUZZ_FLAGS   ?=
FUZZ_BIN     := $(BUILD)/fuzz/fuzz/fuzz_commands
FUZZ_OPTS    := -detect_leaks=0 -max_len=482 -timeout=60 -rss_limit_mb=4096

$(BUILD)/fuzz/CMakeCache.txt:
	@scripts/install-deps.sh fuzz
	cmake -S . -B $(BUILD)/fuzz $(CMAKE_GEN) -DCMAKE_C_COMPILER=clang \
	  -DCMAKE_CXX_COMPILER=clang++ -DCORVALIN_FUZZ=ON

fuzz-build: $(BUILD)/fuzz/CMakeCache.txt
	cmake --build $(BUILD)/fuzz -j $(JOBS) --target fuzz_commands

fuzz-regress: fuzz-build
	$(FUZZ_BIN) $(FUZZ_OPTS) fuzz/corpus/*
	@echo "fuzz-regress: $$(ls fuzz/corpus | wc -l) passed, 0 failed"

fuzz: fuzz-build
	@mkdir -p $(BUILD)/fuzz/corpus $(BUILD)/fuzz/artifacts
	@touch $(BUILD)/fuzz/artifacts/.start
	$(FUZZ_BIN) $(FUZZ_OPTS) -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	  $(if $(filter 1,$(FUZZ_FORK)),-fork=1 -ignore_crashes=1 -ignore_timeouts=1 -ignore_ooms=1) \
	  -artifact_prefix=$(abspath $(BUILD)/fuzz/artifacts)/ $(FUZZ_FLAGS) \
	  $(BUILD)/fuzz/corpus fuzz/corpus
	@new=$$(find $(BUILD)/fuzz/artifacts -type f ! -name .start -newer $(BUILD)/fuzz/artifacts/.start); \
	if [ -n "$$new" ]; then \
	  echo "make fuzz: findings (replay one with: CORVALIN_FUZZ_TRACE=1 $(FUZZ_BIN) FILE):"; \
	  echo "$$new" | sed 's/^/  /'; exit 1; \
	else echo "make fuzz: no finding"; fi

clean:
	rm -rf $(BUILD)
