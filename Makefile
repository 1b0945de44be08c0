# SPDX-License-Identifier: Apache-2.0
# Set-up and everyday targets. `make run` and `make test` install whatever
# Debian packages are missing, configure, build and run.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
PACKAGES := cmake g++ make pkg-config libsystemc-dev libgtest-dev git
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=Release

.PHONY: all deps configure build run test bench test-sanitize install clean

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

# The main job: the zelsim test bench on the compiled defaults.
run: build
	cd $(BUILD_DIR) && ./apps/zelsim/zelsim

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS)

# The tests under AddressSanitizer and UndefinedBehaviorSanitizer.
SANITIZE_DIR ?= build-sanitize
test-sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZELSIM_SANITIZE=ON
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:handle_abort=0 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizer/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions=$(CURDIR)/tests/sanitizer/ubsan.supp \
	ctest --test-dir $(SANITIZE_DIR) --output-on-failure -j $(JOBS)

bench: build
	$(BUILD_DIR)/bench/run_bench.sh $(BUILD_DIR)

install: build
	cmake --install $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
