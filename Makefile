# SPDX-License-Identifier: Apache-2.0
# Set-up and everyday targets. `make run` and `make test` install whatever
# Debian packages are missing, configure, build and run.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
PACKAGES := cmake g++ make pkg-config libsystemc-dev libgtest-dev git libcli11-dev nlohmann-json3-dev bsdutils python3-matplotlib python3-pytest
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Release

.PHONY: all deps configure build run test test-slurm bench diff-check test-sanitize soak install clean

all: build

# Installs the packages that are missing, as root or through sudo.
deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The main job: the zelsim test bench on the compiled defaults. The terminal
# gets zelsim's summary; the model's own report goes to a file, which zelsim
# names at the end.
run: build
	cd $(BUILD_DIR) && ./apps/zelsim/zelsim --report zelsim-report.txt

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# zelsim-sweep on a single-node Slurm cluster started for the test, as root
# and without systemd: installs Debian's Slurm and munge packages when they
# are missing, runs a sweep locally and as a job array, compares the two and
# resubmits a point failed on purpose (apps/sweep/slurm/test-slurm.sh).
test-slurm: build
	apps/sweep/slurm/test-slurm.sh $(BUILD_DIR)

# The library and the tests under AddressSanitizer and
# UndefinedBehaviorSanitizer. The suppression files in tests/sanitizer say
# what is left out and why. SystemC threads run on coroutine stacks, which
# the fake stacks of detect_stack_use_after_return break, so that stays off.
# The install check is left to `make test`: it builds hosts without the
# sanitizer, which can't load the instrumented library.
SANITIZE_DIR ?= build-sanitize
SANITIZE_ENV = ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:handle_abort=0:detect_stack_use_after_return=0 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizer/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions=$(CURDIR)/tests/sanitizer/ubsan.supp
test-sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELSIM_SANITIZE=ON
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	$(SANITIZE_ENV) ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS) -E '^InstallAndBuildHosts$$'

# The soak: zelsim --check-rest over the configuration matrix, every pair of
# settings covered once per seed (37 cases), 100 us of traffic per run, a
# fifth of the runs made twice and compared byte for byte, in two modes
# (docs/reliability.md):
# - reference: the model as specified, 5 seeds; the runs that its two known
#   faults stop or stall are counted as known faults, and each fault's
#   reproducer must still show it;
# - corrected: --correct all, 20 seeds, over 10 million requests; every run
#   must be clean.
# About 35 minutes on two cores. SOAK_ARGS adds or overrides options of both,
# e.g. SOAK_ARGS="--seeds 2 --time 5000" for a quick one.
SOAK_ARGS ?=
SOAK = $(BUILD_DIR)/apps/soak/zelsim-soak --quiet --jobs $(JOBS) --pairwise --time 100000 --determinism 20
soak: build
	$(SOAK) --seeds 5 --allow-known $(SOAK_ARGS)
	$(SOAK) --seeds 20 --correct all $(SOAK_ARGS)

# Fuzzes the configuration file reader and zelsim's trace reader with clang's
# libFuzzer under AddressSanitizer and UndefinedBehaviorSanitizer, one after
# the other, each for FUZZ_SECONDS (fuzz/README.md). Installs clang when it is
# missing. Each run starts from the seeds of fuzz/corpus, copied into
# $(FUZZ_DIR)/corpus, where the corpus grows from run to run. A crash, a hang
# (over 10 s for one input) or a failed check of a harness fails the target
# and leaves the input in $(FUZZ_DIR)/findings; prints the final stats lines.
FUZZ_DIR ?= build-fuzz
FUZZ_SECONDS ?= 120
FUZZ_PACKAGES := clang libclang-rt-dev
.PHONY: fuzz
fuzz:
	@$(MAKE) --no-print-directory deps PACKAGES="$(PACKAGES) $(FUZZ_PACKAGES)"
	CC=clang CXX=clang++ cmake -S fuzz -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(FUZZ_DIR) -j $(JOBS)
	@for kind in ini trace; do \
	  rm -rf $(FUZZ_DIR)/findings/$$kind; \
	  mkdir -p $(FUZZ_DIR)/corpus/$$kind $(FUZZ_DIR)/findings/$$kind || exit 1; \
	  cp fuzz/corpus/$$kind/* $(FUZZ_DIR)/corpus/$$kind/ || exit 1; \
	  log=$(FUZZ_DIR)/fuzz_$$kind.log; \
	  echo "fuzz_$$kind: $(FUZZ_SECONDS) s, log in $$log"; \
	  $(FUZZ_DIR)/fuzz_$$kind -max_total_time=$(FUZZ_SECONDS) -timeout=10 -print_final_stats=1 \
	    -dict=fuzz/$$kind.dict -artifact_prefix=$(FUZZ_DIR)/findings/$$kind/ \
	    $(FUZZ_DIR)/corpus/$$kind >$$log 2>&1; status=$$?; \
	  grep -E '^#[0-9]+[[:space:]]+DONE|^Done [0-9]+ runs' $$log; \
	  if [ $$status -ne 0 ] || [ -n "$$(ls -A $(FUZZ_DIR)/findings/$$kind)" ]; then \
	    tail -n 40 $$log; \
	    echo "fuzz_$$kind: failed (status $$status); inputs in $(FUZZ_DIR)/findings/$$kind"; exit 1; \
	  fi; \
	done

# Times zelsim on the standard workloads (200 us simulated each) and the
# kernel floor; prints the table and writes bench/results.json. Pass more
# options through BENCH_ARGS, e.g. BENCH_ARGS="--repeat 3 --only read64".
BENCH_ARGS ?=
bench: build
	$(BUILD_DIR)/bench/run_bench --json bench/results.json $(BENCH_ARGS)

# The differential check: builds REF in a scratch worktree (build-diff/, its
# build kept while REF is the same) and the working tree, runs both zelsim
# programs over 200 configurations of the soak's matrix and compares all they
# print and write byte for byte (docs/performance.md). DIFF_ARGS adds
# options, e.g. DIFF_ARGS="--cases 20" (bench/diff_check.py --help).
REF ?=
DIFF_ARGS ?=
diff-check: configure
	@if [ -z "$(REF)" ]; then echo "make diff-check: name the reference, e.g. REF=main"; exit 2; fi
	python3 bench/diff_check.py --ref "$(REF)" --jobs $(JOBS) --build-dir $(BUILD_DIR) $(DIFF_ARGS)

install: build
	cmake --install $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
