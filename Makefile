# Thin front of the build: what a target does stands in scripts/ and CMakePresets.json.
#
#   make                  the tool (build/bin/zlibcompress), the library (build/lib/libtessel.a), tests
#   make run              packs and unpacks 100 MB of this machine's files and checks every byte;
#                         then traces 100,000 lines into rotating files and finds every one again;
#                         then lets two processes talk over a channel; then runs a whole machine
#                         of managers and services for a short day
#   make test             all tests
#   make bench            all comparisons; BENCH="alloc list" for some of them
#   make fuzz             every fuzzer for FUZZ_SECONDS
#   make soak             a machine under load for SOAK_SECONDS, a process killed every second
#   make lint             clang-format, warnings of g++ and clang++, clang-tidy
#   make sanitize         all tests under AddressSanitizer and UndefinedBehaviorSanitizer
#   make sanitize-threads the tests of the archive tool under ThreadSanitizer
#   make test-ilp32       all tests as 32-bit programs
#   make coverage         names the functions of the headers that no test calls
#   make check-install    programs outside the tree, built on what an installation holds
#   make install          tool, library, headers and the skeleton of a home directory below PREFIX
#
# Missing Debian packages are installed first; TESSEL_SETUP=no prevents that.
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 900
SOAK_SEED ?= 1
export CMAKE_GENERATOR ?= Ninja
CTEST = ctest --output-on-failure --no-tests=error -j $$(nproc) --test-dir

.PHONY: coverage all run test bench fuzz soak lint sanitize sanitize-threads test-ilp32 check-install install clean
all:
	@scripts/setup.sh build test && scripts/build.sh release

run:
	@scripts/setup.sh build test && scripts/build.sh release zlibcompress examples managers && \
		scripts/run.sh && scripts/run-tracing.sh && scripts/run-messages.sh && scripts/run-system.sh

test: all
	@$(CTEST) build

bench:
	@scripts/setup.sh build bench && scripts/bench.sh $(BENCH)

fuzz:
	@scripts/setup.sh build fuzz && scripts/fuzz.sh $(FUZZ_SECONDS)

soak: all
	@scripts/soak.sh $(SOAK_SECONDS) $(SOAK_SEED)

lint:
	@scripts/setup.sh build test lint && scripts/lint.sh

sanitize:
	@scripts/setup.sh build test && scripts/sanitize.sh

sanitize-threads:
	@scripts/setup.sh build test && scripts/sanitize.sh threads

test-ilp32:
	@scripts/setup.sh build ilp32 && scripts/build.sh ilp32 && $(CTEST) build/ilp32

coverage:
	@scripts/setup.sh build test && scripts/coverage.sh

check-install: all
	@scripts/run-install.sh

install: all
	@cmake --install build --prefix $(PREFIX)

clean:
	@rm -rf build
