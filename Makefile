# Velmora: top-level entry points. `make run` and `make test` do all set-up on a fresh machine.
SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD ?= build
RUN_ROOT ?= $(CURDIR)/.run-root
CTEST_FLAGS ?= --output-on-failure -j$(JOBS)

.PHONY: all deps build build-run run test test-unit test-asan test-tsan test-sim test-node bench clean

all: build

deps:
	@scripts/install-deps

# configure(dir, extra cmake options)
define configure
	@if [ ! -f $(1)/build.ninja ]; then cmake -S . -B $(1) -G Ninja $(2) >/dev/null; fi
endef

build: deps
	$(call configure,$(BUILD),-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	@ninja -C $(BUILD) -j$(JOBS)

# Only what the demo runs: the daemon and its client (the tests and benchmarks are not built).
build-run: deps
	$(call configure,$(BUILD),-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	@ninja -C $(BUILD) -j$(JOBS) Velmora velmoractl

# The daemon in the foreground on a freshly made simulated appliance.
run: build-run
	@sim/make-root --force --receivers --cast-receiver $(RUN_ROOT) >/dev/null
	@echo "Velmora is starting on the simulated appliance $(RUN_ROOT)"
	@echo "In a second terminal:"
	@echo "  $(BUILD)/velmoractl --root $(RUN_ROOT) echo"
	@echo "  $(BUILD)/velmoractl --root $(RUN_ROOT) --xml echo"
	@echo "Stop it with Ctrl-C (the simulated receivers stop with it)."
	@trap true INT TERM; $(BUILD)/Velmora --root $(RUN_ROOT); sim/bin/simctl --root $(RUN_ROOT) stop-devices

# Everything CI checks: the simulated appliance's own tests, then the unit and integration
# tests in a normal build and under AddressSanitizer+UBSan and ThreadSanitizer.
test: build test-sim test-node
	ctest --test-dir $(BUILD) $(CTEST_FLAGS)
	@$(MAKE) --no-print-directory test-asan
	@$(MAKE) --no-print-directory test-tsan

test-sim: deps
	@cd sim && python3 -m unittest -q test_sim

# The cast sender against the simulated cast receiver (Node's test runner).
test-node: deps
	node --test sender/test/

test-asan: deps
	$(call configure,build-asan,-DCMAKE_BUILD_TYPE=Debug -DVELMORA_SANITIZE=address)
	@ninja -C build-asan -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir build-asan $(CTEST_FLAGS)

test-tsan: deps
	$(call configure,build-tsan,-DCMAKE_BUILD_TYPE=Debug -DVELMORA_SANITIZE=thread)
	@ninja -C build-tsan -j$(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --test-dir build-tsan $(CTEST_FLAGS)

bench: build
	@bench/run-bench $(BUILD)

clean:
	rm -rf build build-asan build-tsan $(RUN_ROOT)
