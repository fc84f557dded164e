# Front door. `make test` installs what is missing (Debian packages, as root, starting no
# services; see scripts/install-packages.sh), configures, builds and runs the whole test suite
# through CTest. On a machine without make, scripts/setup.sh installs it first. The sanitizer
# variants do the same in their own build folders.

# `file` is for CPack's Debian generator, which needs it to work out the package's run-time
# dependencies; doxygen builds the API reference and chromium renders the emulator's dashboard
# in its test.
DEBIAN_PACKAGES := build-essential cmake ninja-build pkg-config file \
	libcpprest-dev libboost-dev libboost-system-dev libboost-thread-dev \
	libboost-program-options-dev libssl-dev libspdlog-dev nlohmann-json3-dev \
	libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev curl doxygen chromium

COMMA := ,
JOBS ?= $(shell nproc)
CMAKE_GENERATOR ?= Ninja
CTEST_ARGS ?= --output-on-failure -j $(JOBS) --timeout 300

# The liveness cases mostly wait (held heartbeats, slow renewals); the sanitizer builds run
# them with the one-thread pool only, the tightest of the three sizes the plain build runs.
SAN_CTEST_ARGS := $(CTEST_ARGS) -E "Liveness.*/Threads[24]"

SAN_DIR := $(CURDIR)/tests/sanitizers
ASAN_ENV := ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1 \
	LSAN_OPTIONS=suppressions=$(SAN_DIR)/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions=$(SAN_DIR)/ubsan.supp
TSAN_ENV := TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(SAN_DIR)/tsan.supp:report_signal_unsafe=0

.PHONY: all deps build test test-asan test-tsan demo run docs fuzz fuzz-build fuzz-smoke format clean

all: build

deps:
	@sh scripts/install-packages.sh $(DEBIAN_PACKAGES)

# Warnings are errors in CI and for developers who ask (TOLVA_WERROR=ON); a user's build does
# not fail on a warning that a newer compiler adds.
TOLVA_WERROR ?= OFF

# configure DIR [cmake args...]: configures once; later builds only re-run the generator.
define configure
	@[ -f $(1)/build.ninja ] || cmake -S . -B $(1) -G "$(CMAKE_GENERATOR)" -DTOLVA_WARNINGS_AS_ERRORS=$(TOLVA_WERROR) $(2)
endef

build: deps
	$(call configure,build,-DCMAKE_BUILD_TYPE=RelWithDebInfo)
	cmake --build build -j $(JOBS)

# The whole tour of the library (token, verification, a service with heartbeats, mailboxes,
# post and receive, request and reply) against an emulator started inside the tool; a
# QX_PLATFORM_CONFIG of the caller's would make it tour that platform instead.
demo: build
	env -u QX_PLATFORM_CONFIG build/cli/tolva demo

# The facade's example host against a separately started emulator process.
run: build
	scripts/run-demo.sh build

test: build
	cd build && ctest $(CTEST_ARGS)

test-asan: deps
	$(call configure,build-asan,-DCMAKE_BUILD_TYPE=Debug -DTOLVA_SANITIZE=address$(COMMA)undefined -DTOLVA_BUILD_BENCH=OFF)
	cmake --build build-asan -j $(JOBS)
	cd build-asan && $(ASAN_ENV) ctest $(SAN_CTEST_ARGS)

test-tsan: deps
	$(call configure,build-tsan,-DCMAKE_BUILD_TYPE=Debug -DTOLVA_SANITIZE=thread -DTOLVA_BUILD_BENCH=OFF)
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && $(TSAN_ENV) ctest $(SAN_CTEST_ARGS)

# The API reference (Doxygen, HTML) in build/docs/html; a Doxygen warning fails it.
docs: build
	cmake --build build --target docs

# Fuzzing with libFuzzer (Clang, AddressSanitizer and UndefinedBehaviorSanitizer) in
# build-fuzz: `make fuzz` runs each target for FUZZ_SECONDS, `make fuzz-smoke` (CI) for a
# fixed number of inputs over the seeds in tests/fuzz/corpus.
FUZZ_PACKAGES := clang libclang-rt-14-dev
FUZZ_SECONDS ?= 60
FUZZ_RUNS ?= 3000

fuzz-build: deps
	@sh scripts/install-packages.sh $(FUZZ_PACKAGES)
	$(call configure,build-fuzz,-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DTOLVA_FUZZ=ON -DTOLVA_SANITIZE=address$(COMMA)undefined -DTOLVA_BUILD_TESTS=OFF -DTOLVA_BUILD_BENCH=OFF -DTOLVA_BUILD_TOOLS=OFF)
	cmake --build build-fuzz -j $(JOBS)

fuzz: fuzz-build
	$(ASAN_ENV) sh scripts/run-fuzzers.sh build-fuzz time $(FUZZ_SECONDS)

fuzz-smoke: fuzz-build
	$(ASAN_ENV) sh scripts/run-fuzzers.sh build-fuzz runs $(FUZZ_RUNS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-fuzz
