# The ways in, thin over CMake. Every target installs the Debian packages that it needs and that are missing
# (with root or sudo), so that it works on a bare machine.

CMAKE_FLAGS =
CTEST_FLAGS =
BENCH_FLAGS =
GSS_MUTATIONS = 500000

INSTALL = sh packaging/install-packages.sh
CONFIGURE = cmake -G Ninja -S . $(CMAKE_FLAGS) -B
COMPILE = cmake --build
# Without the tests, which "all" would include once the directory has been configured with them.
PROGRAMS = --target daemon/all tools/all
TEST = ctest --output-on-failure -j "$$(nproc)" $(CTEST_FLAGS) --test-dir

help: ## Lists the targets
	@echo "Targets:"
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-10s %s\n", $$1, $$2 }' Makefile

build: ## Builds the programs into build/bin
	@$(INSTALL) build
	@$(CONFIGURE) build
	@$(COMPILE) build $(PROGRAMS)

demo: build ## Starts the daemon on port 1100 with an example directory and asks it a few questions
	@bash tools/demo.sh start

demo-proxy: build ## The demo behind Squid: curl with a password, with NTLM, from a bound address
	@$(INSTALL) proxy
	@bash tools/demo_proxy.sh start

demo-stop: ## Stops what demo and demo-proxy started
	@bash tools/demo.sh stop

check: ## Builds everything and runs all tests
	@$(INSTALL) build test
	@$(CONFIGURE) build -DBUILD_TESTS=ON
	@$(COMPILE) build
	@$(TEST) build

bench: ## Measures the daemon beside other servers for some minutes (BENCH_FLAGS=--quick: half a minute)
	@$(INSTALL) build bench
	@$(CONFIGURE) build -DBUILD_BENCH=ON
	@$(COMPILE) build $(PROGRAMS) bench/all
	@/usr/bin/python3 bench/run.py build $(BENCH_FLAGS)

asan: ## Runs all tests under the address and undefined-behaviour sanitizers
	@$(INSTALL) build test
	@$(CONFIGURE) build/asan -DBUILD_TESTS=ON -DSANITIZE=address,undefined
	@$(COMPILE) build/asan
	@LSAN_OPTIONS="suppressions=$$PWD/tests/lsan.supp $$LSAN_OPTIONS" $(TEST) build/asan

# The thread sanitizer cannot map its shadow memory where addresses are randomised over more bits than it knows.
tsan: ## Runs all tests under the thread sanitizer
	@$(INSTALL) build test
	@$(CONFIGURE) build/tsan -DBUILD_TESTS=ON -DSANITIZE=thread
	@$(COMPILE) build/tsan
	@if setarch -R true 2>/dev/null; then fixed="setarch -R"; fi; \
	TSAN_OPTIONS="suppressions=$$PWD/tests/tsan.supp $$TSAN_OPTIONS" $$fixed $(TEST) build/tsan

fuzz: ## Feeds hostile bytes to every parser for FUZZ_SECONDS each (12), GSS_MUTATIONS exchanges to NTLM
	@$(INSTALL) build fuzz
	@CC=clang-14 CXX=clang++-14 $(CONFIGURE) build/fuzz -DFUZZ=ON -DSANITIZE=address,undefined
	@$(COMPILE) build/fuzz --target fuzz_targets gss_mutation
	@/usr/bin/python3 tests/fuzz/run.py build/fuzz/bin/fuzz_targets
	@seq "$$(nproc)" | xargs -P 0 -I SEED build/fuzz/bin/gss_mutation $(GSS_MUTATIONS) SEED

# Programs of several accounts add to the same counters, so the files are there before and anybody may write them.
coverage: ## Runs all tests and tells which lines of ours none of them reached, in build/coverage/report
	@$(INSTALL) build test coverage
	@$(CONFIGURE) build/coverage -DBUILD_TESTS=ON -DCOVERAGE=ON -DCMAKE_BUILD_TYPE=Debug
	@$(COMPILE) build/coverage
	@find build/coverage -name '*.gcno' | sed 's/gcno$$/gcda/' | while read -r file; do : >"$$file" && chmod 666 "$$file"; done
	@AUTHD_COVERAGE=1 GCOV_ERROR_FILE=/dev/null $(TEST) build/coverage; failed=$$?; sh tests/coverage/report.sh build/coverage; exit $$failed

chaos: ## Makes the daemon's surroundings fail for CHAOS_SECONDS in each test (default 30)
	@$(INSTALL) build test
	@$(CONFIGURE) build -DBUILD_TESTS=ON
	@$(COMPILE) build
	@AUTHD_CHAOS_SECONDS=$${CHAOS_SECONDS:-30} ctest --output-on-failure -L chaos $(CTEST_FLAGS) --test-dir build

lint: ## Checks layout, looks for bugs with clang-tidy, checks the shell scripts
	@$(INSTALL) build test lint
	@$(CONFIGURE) build/lint -DBUILD_TESTS=ON -DBUILD_BENCH=ON
	@$(COMPILE) build/lint --target velder_proto
	@bash tools/lint.sh build/lint

deb: ## Builds the Debian packages into build/deb
	@$(INSTALL) build deb
	@bash packaging/make-deb.sh

deb-test: ## Builds the packages, then installs, upgrades and removes them in a Debian root of their own (needs root)
	@$(INSTALL) build deb deb-test
	@bash packaging/make-deb.sh
	@/usr/bin/python3 -B tests/packaging/alone.py build/deb tests/packaging

clean: ## Removes what was built; stops the demo, keeps its files in build/demo
	@bash tools/demo.sh stop
	@if [ -d build ]; then find build -mindepth 1 -maxdepth 1 ! -name demo -exec rm -rf {} +; fi

.PHONY: help build demo demo-proxy demo-stop check bench asan tsan fuzz coverage chaos lint deb deb-test clean
