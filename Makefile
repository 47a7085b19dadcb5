# The commands of the project; README says what each does. Each sets up what it needs first (scripts/setup).
BUILD := build
JOBS ?= $(shell nproc)
CONSOLE := $(BUILD)/release/console

.PHONY: help run build pictures test unit program service browser check format sanitize faults soak fuzz bench package package-test container-test cross-test clean

help:
	@echo "make run       build, start the console on http://127.0.0.1:8080 with sample files, print its log-on"
	@echo "make build     release build in build/release, runnable tree in build/release/console"
	@echo "make test      every test: unit, program, service, browser"
	@echo "make check     format, clang-tidy, cppcheck, shell syntax"
	@echo "make sanitize  unit, program and service tests under ASan and UBSan"
	@echo "make faults    every call of the system fails once in every action, 200 kills, a million requests; takes long"
	@echo "make soak      an hour (SOAK_SECONDS) of streams, scans, pages and a file server at once"
	@echo "make fuzz      each fuzz target for FUZZ_SECONDS (60)"
	@echo "make bench     the figures of docs/performance.md, measured here"
	@echo "make package   the .debs in build/package, with their list of materials"
	@echo "make package-test  the packages installed, used, upgraded and removed in a container"
	@echo "make container-test  the container image built, started, logged on to and scanned with"
	@echo "make cross-test    the packages built for arm64 and tried, emulated"
	@echo "make pictures  the pictures of README and docs, by the browser tests"

run: build
	@scripts/run-console

build:
	@scripts/setup run
	@cmake --preset release >/dev/null
	@cmake --build $(BUILD)/release -j $(JOBS)

test:
	@scripts/setup run test
	@cmake --preset test >/dev/null
	@cmake --build $(BUILD)/release -j $(JOBS)
	@ctest --test-dir $(BUILD)/release -j $(JOBS) --output-on-failure --no-tests=error
	@node --test --test-concurrency=1 tests/browser/*.test.mjs

# One kind of test alone, after a build by `make test`.
unit program service:
	@cmake --build $(BUILD)/release -j $(JOBS)
	@ctest --test-dir $(BUILD)/release -j $(JOBS) -L '^$@$$' --output-on-failure --no-tests=error

browser:
	@node --test --test-concurrency=1 tests/browser/*.test.mjs

check:
	@scripts/setup run check
	@cmake --preset test >/dev/null
	@scripts/check

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

# But for tests that put themselves before malloc, or measure memory.
sanitize:
	@scripts/setup run test
	@cmake --preset sanitize >/dev/null
	@cmake --build $(BUILD)/sanitize -j $(JOBS)
	@ASAN_OPTIONS=detect_leaks=1:verify_asan_link_order=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(BUILD)/sanitize -j $(JOBS) --output-on-failure --no-tests=error \
	    -E '^(ServiceFaults|RequestCampaign|ManyClients)|Memory$$'

faults:
	@cmake --build $(BUILD)/release -j $(JOBS) --target fault_tests
	@KELDRA_LONG_FAULTS=1 $(BUILD)/release/tests/fault_tests

soak:
	@scripts/setup run test clients
	@cmake --preset test >/dev/null
	@cmake --build $(BUILD)/release -j $(JOBS)
	@KELDRA_SOAK_SECONDS=$${SOAK_SECONDS:-3600} $(BUILD)/release/tests/service_tests --gtest_filter='ManyClients*Memory*'

fuzz:
	@scripts/setup run fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build $(BUILD)/fuzz -j $(JOBS)
	@scripts/fuzz $(BUILD)/fuzz/fuzz $${FUZZ_SECONDS:-60}

bench:
	@scripts/setup run bench
	@cmake --preset bench >/dev/null
	@cmake --build $(BUILD)/release -j $(JOBS)
	@bench/run $(BUILD)/release

package:
	@scripts/setup run package
	@scripts/package $(BUILD)/package

package-test: package
	@scripts/setup package-test
	@scripts/package-test $(BUILD)/package

container-test: package
	@scripts/setup package-test
	@scripts/container-test $(BUILD)/package

cross-test:
	@scripts/setup package-test
	@scripts/cross-test $(BUILD)/arm64

# The pictures of README and docs, taken by the browser tests.
pictures: build
	@scripts/setup test
	@scripts/make-pictures

clean:
	@rm -rf $(BUILD)/release $(BUILD)/debug $(BUILD)/clang $(BUILD)/sanitize $(BUILD)/fuzz $(BUILD)/package
